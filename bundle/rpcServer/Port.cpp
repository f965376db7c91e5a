// A launcher that was killed leaves its server running, and that server holds the port. The next
// server asks it for the port. Every server keeps a lock on its bundle's directory, and the kernel
// names the holder of a lock. The holder gets a signal that every other program ignores, that only
// the same user and root may send, and that a server ignores while its launcher runs. So a wrong
// process, or a stranger's lock, does no harm.

#include "Port.h"

#include "Platform.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int giveWaySignal = SIGURG;
constexpr int attempts = 40;               // a killed server may hold the port a little longer
constexpr useconds_t retryPause = 100'000; // microseconds

// Whoever started this server. When it ends, the system puts another parent in its place. A
// signal's handler can look nowhere else:
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
pid_t launcher;

void giveWay(int /*signal*/)
{
    if (getppid() != launcher) {
        _exit(0);
    }
}

void askForThePort(int directory)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK; // which the other server's read lock prevents
    lock.l_whence = SEEK_SET;
    // A holder that has no process id here is named as 0 or less: to kill(), a group of processes.
    if (fcntl(directory, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0) {
        kill(lock.l_pid, giveWaySignal);
    }
}

void keepLock(int directory)
{
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    fcntl(directory, F_SETLK, &lock);
}

} // namespace

int takePort(int port)
{
    launcher = getppid();
    std::signal(giveWaySignal, giveWay);
    // The lock is not on the program: a build may have replaced it since the other server started.
    // The directory stays open, since closing it gives up the lock.
    const int directory = open(ownDirectory().c_str(), O_RDONLY | O_CLOEXEC);

    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool bound = false; // several that start at once may be; only one of them can listen
    for (int left = attempts; left > 0; --left) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as bind() takes them all
        auto *plain = reinterpret_cast<sockaddr *>(&address);
        bound = bound || bind(listener, plain, sizeof(address)) == 0;
        if (bound && listen(listener, SOMAXCONN) == 0) {
            keepLock(directory);
            return listener;
        }
        if (errno != EADDRINUSE) {
            return -1;
        }
        askForThePort(directory);
        usleep(retryPause);
    }
    errno = EADDRINUSE; // which the last request for the port may have changed
    return -1;
}
