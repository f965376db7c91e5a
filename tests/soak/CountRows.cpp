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

namespace {

constexpr const char *constructorName = "_ZN16QStringListModelC1ERK11QStringListP7QObject";
using Constructor = void (*)(void *model, const QStringList &rows, void *parent);

/// Runs before the launcher's main(). What the launcher starts is not to be preloaded.
[[gnu::constructor]] void prepare()
{
    unsetenv("LD_PRELOAD"); // NOLINT(concurrency-mt-unsafe): there is one thread yet
}

int openFile()
{
    const char *name = std::getenv("ORVANE_ROWS"); // NOLINT(concurrency-mt-unsafe): nobody sets it
    return open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,*-reinterpret-cast): the names and types of the linker
extern "C" void
_ZN16QStringListModelC1ERK11QStringListP7QObject(void *model, const QStringList &rows, void *parent)
{
    static const int file = openFile();
    static const auto constructor =
        reinterpret_cast<Constructor>(dlsym(RTLD_NEXT, constructorName));
    const std::string line =
        std::to_string(rows.size()) + ' ' + rows.constFirst().toStdString() + '\n';
    if (write(file, line.data(), line.size()) < 0) {
        std::abort();
    }
    constructor(model, rows, parent);
}
// NOLINTEND(bugprone-reserved-identifier,*-reinterpret-cast)
