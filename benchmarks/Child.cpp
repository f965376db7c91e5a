// The service program of the benchmarks, in nginx's place and in the RPC server's. It is statically
// linked, so that its first instruction comes soon after the exec. As nginx's stop command ("-s
// stop") it returns at once: what a stop takes beyond the command is then the launcher's.
//
// It starts without arguments and without an environment, so the driver's two FIFOs lie beside the
// executable and have its name. Into .reports go lines "WHAT STAMP PID" (nanoseconds of the
// monotonic clock, which all processes read alike); from .orders come lines of text:
//   line N     write the line "N" and report it
//   pages N    write N pages, as fast as they are taken, and report each
//   end 0      end

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::int64_t nanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Opens for both directions, so that nobody waits for the other end, and no file ends.
std::FILE *openBeside(const char *ending)
{
    std::string path(4096, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return std::fopen((path + ending).c_str(), "r+");
}

void report(std::FILE *reports, const char *what, std::int64_t stamp)
{
    std::fprintf(reports, "%s %" PRId64 " %d\n", what, stamp, getpid());
    std::fflush(reports);
}

void writeLine(std::FILE *reports, int number)
{
    const std::string line = std::to_string(number) + '\n';
    const std::int64_t stamp = nanoseconds();
    if (write(STDOUT_FILENO, line.data(), line.size()) > 0) {
        report(reports, "line", stamp);
    }
}

void writePages(std::FILE *reports, int count)
{
    const std::string page(4096, '.');
    while (count-- > 0 && write(STDOUT_FILENO, page.data(), page.size()) > 0) {
        report(reports, "page", nanoseconds());
    }
}

} // namespace

int main(int argc, char ** /*argv*/)
{
    const std::int64_t first = nanoseconds();
    if (argc > 1) {
        return 0;
    }
    std::FILE *reports = openBeside(".reports");
    std::FILE *orders = openBeside(".orders");
    if (reports == nullptr || orders == nullptr) {
        return 1;
    }
    report(reports, "start", first);
    std::array<char, 16> what{};
    int number = 0;
    while (std::fscanf(orders, "%15s %d", what.data(), &number) == 2) {
        if (std::strcmp(what.data(), "line") == 0) {
            writeLine(reports, number);
        } else if (std::strcmp(what.data(), "pages") == 0) {
            writePages(reports, number);
        } else {
            return 0;
        }
    }
    return 0;
}
