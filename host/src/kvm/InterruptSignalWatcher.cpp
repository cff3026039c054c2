#include "InterruptSignalWatcher.hpp"

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace kvm::detail {

namespace {

// The write end of the active watcher's pipe, -1 when none is active. Read by
// the signal handler, so it must be lock-free.
std::atomic<int> signalPipe{-1};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onInterruptSignal(int) {
    const int savedErrno = errno;
    const int fd = signalPipe.load();
    const char byte = 1;
    // A full pipe drops the byte: the ones already in it deliver an interrupt.
    if (fd >= 0 && ::write(fd, &byte, 1) < 0) {
    }
    errno = savedErrno;
}

[[noreturn]] void throwSystemError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

InterruptSignalWatcher::InterruptSignalWatcher(std::function<void()> onInterrupt)
    : onInterrupt_(std::move(onInterrupt)) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throwSystemError("Cannot create the interrupt signal pipe");
    }
    readEnd_ = ends[0];
    writeEnd_ = ends[1];
    const auto closeEnds = [this] {
        ::close(readEnd_);
        ::close(writeEnd_);
    };
    if (::fcntl(writeEnd_, F_SETFL, O_NONBLOCK) != 0) {
        closeEnds();
        throwSystemError("Cannot set up the interrupt signal pipe");
    }
    int none = -1;
    if (!signalPipe.compare_exchange_strong(none, writeEnd_)) {
        closeEnds();
        throw std::logic_error("Ctrl-C is already handled by another interpreter.");
    }
    struct sigaction action {};
    action.sa_handler = onInterruptSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (::sigaction(SIGINT, &action, &previous_) != 0) {
        signalPipe.store(-1);
        closeEnds();
        throwSystemError("Cannot install the interrupt signal handler");
    }
    try {
        thread_ = std::thread([this] { watch(); });
    } catch (...) {
        ::sigaction(SIGINT, &previous_, nullptr);
        signalPipe.store(-1);
        closeEnds();
        throw;
    }
}

InterruptSignalWatcher::~InterruptSignalWatcher() {
    ::sigaction(SIGINT, &previous_, nullptr);
    signalPipe.store(-1);
    // End of file tells the watcher thread to stop once the pipe is drained.
    ::close(writeEnd_);
    thread_.join();
    ::close(readEnd_);
}

void InterruptSignalWatcher::watch() {
    for (;;) {
        char byte;
        const ssize_t n = ::read(readEnd_, &byte, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        try {
            onInterrupt_();
        } catch (...) {
            // An interrupt that cannot be delivered is lost, not fatal.
        }
    }
}

} // namespace kvm::detail
