// Counts the rows of the launcher's lists. Preloaded, it stands before the constructor of the model
// that the launcher makes for every row, and appends to the file that ORVANE_ROWS names a line
// each: how many rows the list has from now on, and its first row, which is the path of the
// service.

#include <QStringList>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#define CONSTRUCTOR _ZN16QStringListModelC1ERK11QStringListP7QObject
#define TEXT_OF(name) #name
#define NAME_OF(macro) TEXT_OF(macro)

namespace {

int file = -1;

/// Runs before the launcher's main(). What the launcher starts is not to be preloaded.
[[gnu::constructor]] void openFile()
{
    file = open(std::getenv("ORVANE_ROWS"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    unsetenv("LD_PRELOAD");
}

} // namespace

extern "C" void CONSTRUCTOR(void *model, const QStringList &rows, void *parent)
{
    const std::string line =
        std::to_string(rows.size()) + ' ' + rows.constFirst().toStdString() + '\n';
    if (write(file, line.data(), line.size()) < 0) {
        std::abort();
    }
    using Constructor = void (*)(void *, const QStringList &, void *);
    reinterpret_cast<Constructor>(dlsym(RTLD_NEXT, NAME_OF(CONSTRUCTOR)))(model, rows, parent);
}
