// The service program of the benchmarks, in nginx's place and in the RPC server's. It is statically
// linked, so that its first instruction comes soon after the exec.
//
//   Child           reports its start, then obeys its orders until it is killed
//   Child -s stop   ends the one that runs, and returns at once, as nginx does
//
// It starts without arguments and without an environment, so whatever it talks through lies beside
// the executable and has its name: .stamps and .orders (FIFOs of the driver; without .orders it
// only waits), .pid, and .worker (an empty file: start a worker of its own, as servers do).
//
// An order is a line of text:
//   line N     write the line "N STAMP"
//   flood N    write N bytes of numbered records, as fast as they are taken
//   end        end

#include "benchmarks/Clock.h"

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::string beside(const char *ending)
{
    std::string path(4096, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return path + ending;
}

void writeAll(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            std::exit(1);
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/// Tells the driver, if one listens: "WHAT STAMP PID".
void report(const char *what, std::int64_t stamp, pid_t pid)
{
    const int fd = open(beside(".stamps").c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) {
        dprintf(fd, "%s %" PRId64 " %d\n", what, stamp, pid);
        close(fd);
    }
}

int stopRunning()
{
    int pid = 0;
    std::FILE *file = std::fopen(beside(".pid").c_str(), "r");
    if (file == nullptr || std::fscanf(file, "%d", &pid) != 1 || pid <= 1) {
        return 1;
    }
    return kill(pid, SIGTERM) == 0 ? 0 : 1;
}

void recordPid()
{
    std::FILE *file = std::fopen(beside(".pid").c_str(), "w");
    if (file != nullptr) {
        std::fprintf(file, "%d", getpid());
        std::fclose(file);
    }
}

/// Starts the worker, which does nothing but live.
void startWorker()
{
    const pid_t worker = fork();
    if (worker == 0) {
        for (;;) {
            pause();
        }
    }
    report("worker", nanoseconds(), worker);
}

/// Records of 16 bytes, numbered from 0.
void flood(std::size_t bytes)
{
    constexpr std::size_t recordBytes = 16;
    char record[recordBytes + 1];
    for (std::size_t number = 0; number < bytes / recordBytes; ++number) {
        std::snprintf(record, sizeof(record), "%015zu\n", number);
        writeAll(STDOUT_FILENO, record, recordBytes);
    }
}

void obey()
{
    // Open for both, so that the file never ends when a driver closes its side.
    const int fd = open(beside(".orders").c_str(), O_RDWR);
    std::FILE *orders = fd < 0 ? nullptr : fdopen(fd, "r");
    while (orders == nullptr) {
        pause();
    }
    char what[16];
    std::size_t number = 0;
    while (std::fscanf(orders, "%15s", what) == 1 && std::strcmp(what, "end") != 0) {
        if (std::fscanf(orders, "%zu", &number) != 1) {
            return;
        }
        if (std::strcmp(what, "line") == 0) {
            char line[64];
            const std::int64_t stamp = nanoseconds();
            const int size = std::snprintf(line, sizeof(line), "%zu %" PRId64 "\n", number, stamp);
            writeAll(STDOUT_FILENO, line, static_cast<std::size_t>(size));
            report("line", stamp, getpid());
        } else if (std::strcmp(what, "flood") == 0) {
            flood(number);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::int64_t first = nanoseconds();
    if (argc > 1 && std::strcmp(argv[1], "-s") == 0) {
        report("stop", first, getpid());
        return stopRunning();
    }
    report("start", first, getpid());
    recordPid();
    if (access(beside(".worker").c_str(), F_OK) == 0) {
        startWorker();
    }
    obey();
    return 0;
}
