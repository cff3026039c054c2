#include "ControlChannel.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/host_name.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/mpi/collectives/broadcast.hpp>
#include <boost/serialization/string.hpp>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace mpipool {

namespace {

using boost::asio::ip::tcp;
using local = boost::asio::local::stream_protocol;

// How long the workers have to connect when the cluster starts.
constexpr std::chrono::seconds kConnectTimeout{60};

void setOption(int fd, int level, int name, int value) {
    ::setsockopt(fd, level, name, &value, sizeof value);
}

// Frames go out at once; a silent peer is given up after kDeadPeerTimeout.
int prepared(tcp::socket& socket) {
    const int fd = socket.release();
    const int seconds = static_cast<int>(kDeadPeerTimeout.count());
    setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPCNT, seconds);
    setOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, seconds * 1000);
    return fd;
}

// A local socket charges what it holds unread to its writer: room for many
// small frames (as far as the system allows).
int preparedLocal(local::socket& socket) {
    const int fd = socket.release();
    setOption(fd, SOL_SOCKET, SO_SNDBUF, 1 << 20);
    return fd;
}

std::string clientHost() {
    if (const char* host = std::getenv("KORVEX_MPIPOOL_HOST"); host && *host) {
        return host;
    }
    return boost::asio::ip::host_name();
}

// A listener for the workers on this host, on an abstract local socket under
// a random name: a local connection costs less than TCP. Null if there is
// none to be had (the workers then connect over TCP).
std::unique_ptr<local::acceptor> localListener(boost::asio::io_context& io, std::string& name) {
    std::random_device random;
    name = "qzmpipool-" + std::to_string(::getpid()) + "-" + std::to_string(random()) +
           std::to_string(random());
    if (!protocol::sameHostShortcuts()) {
        name = "-";
        return nullptr;
    }
    try {
        return std::make_unique<local::acceptor>(io, local::endpoint(std::string(1, '\0') + name));
    } catch (const boost::system::system_error&) {
        name = "-";
        return nullptr;
    }
}

std::vector<std::unique_ptr<ControlSocket>> acceptWorkers(const boost::mpi::communicator& comm) {
    boost::asio::io_context io;
    tcp::acceptor acceptor(io, tcp::endpoint(tcp::v4(), 0));
    std::string localName;
    const auto localAcceptor = localListener(io, localName);
    std::string address =
        clientHost() + " " + std::to_string(acceptor.local_endpoint().port()) + " " + localName;
    boost::mpi::broadcast(comm, address, protocol::kClientRank);

    std::vector<std::unique_ptr<ControlSocket>> sockets(static_cast<std::size_t>(comm.size() - 1));
    std::vector<int> listeners{acceptor.native_handle()};
    if (localAcceptor) {
        listeners.push_back(localAcceptor->native_handle());
    }
    const auto deadline = std::chrono::steady_clock::now() + kConnectTimeout;
    for (std::size_t accepted = 0; accepted < sockets.size(); ++accepted) {
        std::vector<bool> ready;
        waitReadable(listeners, ready,
                     std::chrono::duration_cast<std::chrono::microseconds>(
                         deadline - std::chrono::steady_clock::now()));
        std::uint64_t rank = 0;
        int fd = -1;
        if (ready[0]) {
            tcp::socket socket = acceptor.accept();
            boost::asio::read(socket, boost::asio::buffer(&rank, sizeof rank));
            fd = prepared(socket);
        } else if (ready.size() > 1 && ready[1]) {
            local::socket socket = localAcceptor->accept();
            boost::asio::read(socket, boost::asio::buffer(&rank, sizeof rank));
            fd = preparedLocal(socket);
        } else {
            throw std::runtime_error("a worker did not connect to the client in time");
        }
        auto control = std::make_unique<ControlSocket>(fd);
        if (rank < 1 || rank > sockets.size() || sockets[rank - 1]) {
            throw std::runtime_error("a stranger connected to the client");
        }
        sockets[rank - 1] = std::move(control);
    }
    return sockets;
}

std::unique_ptr<ControlSocket> connectToClient(const boost::mpi::communicator& comm) {
    std::string address;
    boost::mpi::broadcast(comm, address, protocol::kClientRank);
    std::istringstream fields(address);
    std::string host;
    std::string port;
    std::string localName;
    fields >> host >> port >> localName;
    const auto rank = static_cast<std::uint64_t>(comm.rank());
    boost::asio::io_context io;
    // On the client's host, the local socket; else TCP.
    local::socket nearby(io);
    boost::system::error_code failed;
    nearby.connect(local::endpoint(std::string(1, '\0') + localName), failed);
    if (!failed) {
        boost::asio::write(nearby, boost::asio::buffer(&rank, sizeof rank));
        return std::make_unique<ControlSocket>(preparedLocal(nearby));
    }
    tcp::resolver resolver(io);
    tcp::socket socket(io);
    boost::asio::connect(socket, resolver.resolve(tcp::v4(), host, port));
    boost::asio::write(socket, boost::asio::buffer(&rank, sizeof rank));
    return std::make_unique<ControlSocket>(prepared(socket));
}

} // namespace

ControlSocket::ControlSocket(int fd) : fd_(fd) {}

ControlSocket::~ControlSocket() {
    ::close(fd_);
}

bool ControlSocket::write(protocol::Frame frame, std::uint64_t value, bool holdBack) noexcept {
    std::array<unsigned char, kFrameSize> bytes{};
    bytes[0] = static_cast<unsigned char>(frame);
    std::memcpy(bytes.data() + 1, &value, sizeof value);
    const ::iovec part{bytes.data(), bytes.size()};
    const foundation::core::sync::LockGuard lock(writeMutex_);
    return writeAll(&part, 1, holdBack);
}

bool ControlSocket::writeBatch(std::string_view batch) noexcept {
    std::array<unsigned char, kFrameSize> header{};
    header[0] = static_cast<unsigned char>(protocol::Frame::Batch);
    const std::uint64_t size = batch.size();
    std::memcpy(header.data() + 1, &size, sizeof size);
    const std::array<::iovec, 2> parts{
        {{header.data(), header.size()}, {const_cast<char*>(batch.data()), batch.size()}}};
    const foundation::core::sync::LockGuard lock(writeMutex_);
    return writeAll(parts.data(), parts.size(), false);
}

bool ControlSocket::writeAll(const ::iovec* parts, std::size_t count, bool holdBack) noexcept {
    std::array<::iovec, 2> rest{};
    std::copy_n(parts, std::min(count, rest.size()), rest.begin());
    ::msghdr message{};
    message.msg_iov = rest.data();
    message.msg_iovlen = std::min(count, rest.size());
    while (message.msg_iovlen > 0) {
        const ssize_t n = ::sendmsg(fd_, &message, MSG_NOSIGNAL | (holdBack ? MSG_MORE : 0));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        // Past what was written.
        auto written = static_cast<std::size_t>(n);
        while (message.msg_iovlen > 0 && written >= message.msg_iov->iov_len) {
            written -= message.msg_iov->iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + written;
            message.msg_iov->iov_len -= written;
        }
    }
    return true;
}

bool ControlSocket::peerClosed() const noexcept {
    pollfd polled{fd_, POLLRDHUP, 0};
    return ::poll(&polled, 1, 0) > 0 && (polled.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

bool ControlSocket::readAvailable(std::vector<FrameMessage>& frames) {
    std::array<unsigned char, 16384> buffer; // filled by recv
    while (true) {
        const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        if (n <= 0) {
            return false; // the end of the stream, or a broken connection
        }
        std::span<const unsigned char> rest(buffer.data(), static_cast<std::size_t>(n));
        while (!rest.empty()) {
            if (reading_) {
                // The batch of a Batch frame.
                std::string& batch = reading_->batch;
                const std::size_t take = std::min(rest.size(), reading_->value - batch.size());
                batch.append(reinterpret_cast<const char*>(rest.data()), take);
                rest = rest.subspan(take);
            } else {
                const std::size_t take = std::min(rest.size(), kFrameSize - partialSize_);
                std::copy_n(rest.begin(), take, partial_.begin() + partialSize_);
                partialSize_ += take;
                rest = rest.subspan(take);
                if (partialSize_ < kFrameSize) {
                    break;
                }
                partialSize_ = 0;
                reading_.emplace(FrameMessage{static_cast<protocol::Frame>(partial_[0]), 0, {}});
                std::memcpy(&reading_->value, partial_.data() + 1, sizeof reading_->value);
                if (reading_->frame == protocol::Frame::Batch) {
                    if (reading_->value > kMaxBatch) {
                        return false;
                    }
                    reading_->batch.reserve(reading_->value);
                }
            }
            if (reading_->frame != protocol::Frame::Batch ||
                reading_->batch.size() == reading_->value) {
                frames.push_back(std::move(*reading_));
                reading_.reset();
            }
        }
        if (static_cast<std::size_t>(n) < buffer.size()) {
            return true; // all there was; poll() tells of more, or of the end
        }
    }
}

PolledCounter::PolledCounter(int fd, const char* what) : fd_(fd) {
    if (fd_ < 0) {
        throw std::runtime_error(std::string("no ") + what + " for the cluster pool");
    }
}

PolledCounter::~PolledCounter() {
    ::close(fd_);
}

void PolledCounter::drain() noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = ::read(fd_, &count, sizeof count);
}

Waker::Waker() : PolledCounter(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "event file descriptor") {}

void Waker::wake() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(fd_, &one, sizeof one);
}

Alarm::Alarm()
    : PolledCounter(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC),
                    "timer file descriptor") {}

void Alarm::setIn(std::chrono::nanoseconds delay) noexcept {
    const auto nanos = std::max<std::int64_t>(delay.count(), 1); // zero would call it off
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(nanos / 1'000'000'000);
    when.it_value.tv_nsec = static_cast<long>(nanos % 1'000'000'000);
    ::timerfd_settime(fd_, 0, &when, nullptr);
}

void Alarm::callOff() noexcept {
    const itimerspec never{};
    ::timerfd_settime(fd_, 0, &never, nullptr);
}

namespace {

// What the watchable descriptor is registered for: one wake-up once armed
// with EPOLLIN (the kernel adds hang-ups and errors to any registration).
constexpr std::uint32_t kOneWakeUp = EPOLLONESHOT;

} // namespace

WatchedSleep::WatchedSleep(int always, int watchable)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), watchable_(watchable) {
    if (epoll_ < 0) {
        throw std::runtime_error("no epoll descriptor for the cluster pool");
    }
    epoll_event alwaysEvent{};
    alwaysEvent.events = EPOLLIN;
    alwaysEvent.data.fd = always;
    epoll_event watchedEvent{};
    watchedEvent.events = kOneWakeUp;
    watchedEvent.data.fd = watchable;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, always, &alwaysEvent) != 0 ||
        ::epoll_ctl(epoll_, EPOLL_CTL_ADD, watchable, &watchedEvent) != 0) {
        const std::string reason = std::strerror(errno);
        ::close(epoll_);
        throw std::runtime_error("the cluster pool cannot sleep on a descriptor: " + reason);
    }
}

WatchedSleep::~WatchedSleep() {
    ::close(epoll_);
}

void WatchedSleep::wait() noexcept {
    epoll_event event{};
    while (::epoll_wait(epoll_, &event, 1, -1) < 0 && errno == EINTR) {
    }
}

void WatchedSleep::watch() noexcept {
    epoll_event event{};
    event.events = EPOLLIN | kOneWakeUp;
    event.data.fd = watchable_;
    [[maybe_unused]] const int armed = ::epoll_ctl(epoll_, EPOLL_CTL_MOD, watchable_, &event);
}

void WatchedSleep::unwatch() noexcept {
    epoll_event event{};
    event.events = kOneWakeUp;
    event.data.fd = watchable_;
    [[maybe_unused]] const int disarmed = ::epoll_ctl(epoll_, EPOLL_CTL_MOD, watchable_, &event);
}

std::vector<std::unique_ptr<ControlSocket>>
connectControlChannels(const boost::mpi::communicator& comm) {
    if (comm.rank() == protocol::kClientRank) {
        return acceptWorkers(comm);
    }
    std::vector<std::unique_ptr<ControlSocket>> sockets;
    sockets.push_back(connectToClient(comm));
    return sockets;
}

bool sendAnnounced(protocol::Outbox& outbox, ControlSocket& control, int rank,
                   std::vector<protocol::Message> messages) {
    bool written = true;
    std::size_t unannounced = 0;
    const auto announce = [&] {
        if (unannounced > 0) {
            written = control.write(protocol::Frame::Wake, unannounced) && written;
            unannounced = 0;
        }
    };
    for (protocol::Message& message : messages) {
        if (message.inFrame) {
            announce(); // the MPI messages before it come first
            written = control.writeBatch(message.bytes) && written;
        } else {
            outbox.send(rank, message.tag, std::move(message.bytes));
            ++unannounced;
        }
    }
    if (unannounced > 0) {
        announce();
        outbox.progress(); // a small message is done at once
    }
    return written;
}

void waitReadable(const std::vector<int>& fds, std::vector<bool>& ready,
                  std::chrono::microseconds timeout) {
    std::vector<pollfd> polled;
    polled.reserve(fds.size());
    for (const int fd : fds) {
        polled.push_back({fd, POLLIN, 0});
    }
    timespec limit{};
    if (timeout.count() >= 0) {
        limit.tv_sec = static_cast<time_t>(timeout.count() / 1'000'000);
        limit.tv_nsec = static_cast<long>(timeout.count() % 1'000'000) * 1000;
    }
    int n = 0;
    do {
        n = ::ppoll(polled.data(), polled.size(), timeout.count() < 0 ? nullptr : &limit, nullptr);
    } while (n < 0 && errno == EINTR);
    ready.assign(fds.size(), false);
    for (std::size_t i = 0; i < polled.size(); ++i) {
        ready[i] = (polled[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    }
}

} // namespace mpipool
