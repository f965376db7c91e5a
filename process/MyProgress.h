#pragma once

#include <array>
#include <cstdint>
#include <pthread.h>
#include <string>

/// Runs one child program, relays what it writes to the sink insertMsg(), and kills it.
/// Construct; makeProgress(); launchRequest(); delete. The GUI thread makes these calls; the sink
/// runs there and on one reader thread of the runner's own, without a lock.
/// Diagnostics go to the launcher's standard output.
class MyProgress
{
public:
    MyProgress();
    virtual ~MyProgress();
    MyProgress(const MyProgress &) = delete;
    MyProgress &operator=(const MyProgress &) = delete;

    /// The message sink. The base prints @p msg to standard output as it stands.
    virtual void insertMsg(std::string msg);

    /// Starts the program if @p path exists; the sink hears "File found" or "File not found".
    /// @sa createProgress, launchRequest
    void makeProgress(std::string path, std::string command);
    /// Starts @p command through the shell, or, if it is empty, the program at @p path directly.
    /// A failed pipe is reported on standard output, a failed exec by the child into the pipe.
    void createProgress(std::string path, std::string command);
    /// Asks for the output to be read: starts the reader now, or at the next createProgress().
    void launchRequest();
    /// Starts the reader if there is a child. Requires createProgress().
    void launch();
    /// Creates the pipe. Returns false, and says so on standard output, if that failed.
    bool createPipe();
    /// Reads the pipe once, as one turn of the reader does. Blocks until there is output.
    std::string readMsg();
    /// The reader thread's entry; @p self is the runner, and is returned.
    static void *autoUpdate(void *self);
    /// Kills the child and cancels the reader; waits for neither. Always true.
    bool deleteProgress();

    [[nodiscard]] bool getStatus() const { return running; }
    void setStatus(bool status) { running = status; }

    /// The directory of the running executable.
    std::string GetExeDir();
    /// Sets the install root: the bundle directory that the executable lies in, or empty.
    void makeBasePath();
    [[nodiscard]] std::string getBasePath() const { return basePath; }

protected:
    /// Written by the GUI thread, polled by the reader between chunks. A runner whose program was
    /// missing keeps the initial value, so that its destructor has nothing to stop.
    bool running = false;
    std::int32_t childPid = -1;
    std::array<std::int32_t, 2> pipeFds; ///< read end (ours), write end (the child's)
    std::int32_t readerResult = -1;      ///< what the last pthread_create() returned
    bool launchRequested = false;
    std::string basePath;
    pthread_t readerThread{}; ///< the null handle until there is a reader
    std::uintptr_t reserved = 0;

private:
    void startReader();
    [[noreturn]] void runChild(const std::string &path, const std::string &command);
};
