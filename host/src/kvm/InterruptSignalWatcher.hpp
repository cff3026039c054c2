#pragma once

// Ctrl-C delivery without work in a signal handler. While a watcher lives,
// the process's SIGINT handler only writes one byte to a pipe (write is
// async-signal-safe, so it may run on whichever thread the signal lands on);
// a watcher thread blocked reading the pipe calls `onInterrupt` for each
// byte. Nothing polls. One watcher per process at a time, since the signal's
// disposition is process-wide.

#include <csignal>
#include <functional>
#include <thread>

namespace kvm::detail {

class InterruptSignalWatcher {
public:
    // Installs the handler and starts the watcher thread. Throws
    // std::logic_error when another watcher is active, std::system_error when
    // the pipe or the handler cannot be set up. Any thread.
    explicit InterruptSignalWatcher(std::function<void()> onInterrupt);
    // Restores the SIGINT handling found at construction, then stops and
    // joins the watcher thread after it has delivered the signals received.
    ~InterruptSignalWatcher();
    InterruptSignalWatcher(const InterruptSignalWatcher&) = delete;
    InterruptSignalWatcher& operator=(const InterruptSignalWatcher&) = delete;

private:
    // Watcher thread only.
    void watch();

    std::function<void()> onInterrupt_;
    int readEnd_ = -1;
    int writeEnd_ = -1;
    struct sigaction previous_ {};
    std::thread thread_;
};

} // namespace kvm::detail
