// The floor under a sporadic round trip to another process on this machine:
// a parent hands a 90-byte message to a forked child asleep in its wait, one
// hand-off every 10 ms, and takes the 99-byte answer back; no work between.
// The median and 99th percentile of the round trips, in microseconds.
//
//   Socket      what the cluster pool does for a worker on its host: a local
//               stream socket; the child sleeps in ppoll() on it, the parent
//               writes, yields (the child then usually runs on the parent's
//               core) and reads the answer.
//   FutexSpin   the alternative measured for it: the message in shared
//               memory, the child asleep on a futex there, the parent
//               spinning (yielding) until the answer is there.
//
// Compare with BM_Sporadic in ClusterPoolBench: the cluster pool's round
// trip is this floor plus its own work on both sides.

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>

#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kRequestBytes = 90;
constexpr std::size_t kAnswerBytes = 99;
constexpr auto kPause = std::chrono::milliseconds(10);

using Clock = std::chrono::steady_clock;

double nanosSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

void BM_Socket(benchmark::State& state) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) {
        state.SkipWithError("no socket pair");
        return;
    }
    std::array<char, 256> buffer{};
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        while (true) {
            pollfd polled{ends[1], POLLIN, 0};
            ::ppoll(&polled, 1, nullptr, nullptr);
            const ssize_t n = ::recv(ends[1], buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n == 0) {
                ::_exit(0);
            }
            if (n > 0) {
                ::send(ends[1], buffer.data(), kAnswerBytes, MSG_NOSIGNAL);
            }
        }
    }
    ::close(ends[1]);
    std::vector<double> latencies;
    for (auto _ : state) {
        std::this_thread::sleep_for(kPause);
        const auto start = Clock::now();
        ::send(ends[0], buffer.data(), kRequestBytes, MSG_NOSIGNAL);
        std::this_thread::yield();
        pollfd polled{ends[0], POLLIN, 0};
        ::ppoll(&polled, 1, nullptr, nullptr);
        ::recv(ends[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
        const double took = nanosSince(start);
        state.SetIterationTime(took / 1e9);
        latencies.push_back(took);
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    bench::reportPercentiles(state, std::move(latencies));
}

// A futex word in memory shared with the child (not a private futex).
long futex(std::atomic<std::uint32_t>& word, int op, std::uint32_t value) {
    return ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), op, value, nullptr,
                     nullptr, 0);
}

struct Mailbox {
    std::atomic<std::uint32_t> request; // the number of the last request; 0 ends
    std::atomic<std::uint32_t> answer;  // the number of the last answer
    std::array<char, 256> requestBytes;
    std::array<char, 256> answerBytes;
};

void BM_FutexSpin(benchmark::State& state) {
    void* shared =
        ::mmap(nullptr, sizeof(Mailbox), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        state.SkipWithError("no shared memory");
        return;
    }
    auto* mailbox = new (shared) Mailbox{};
    mailbox->request = 1; // none yet: the first is 2
    const pid_t child = ::fork();
    if (child == 0) {
        std::uint32_t seen = 1;
        while (true) {
            std::uint32_t now = mailbox->request.load(std::memory_order_acquire);
            while (now == seen) {
                futex(mailbox->request, FUTEX_WAIT, seen);
                now = mailbox->request.load(std::memory_order_acquire);
            }
            if (now == 0) {
                ::_exit(0);
            }
            seen = now;
            std::memcpy(mailbox->answerBytes.data(), mailbox->requestBytes.data(), kAnswerBytes);
            mailbox->answer.store(now, std::memory_order_release);
        }
    }
    std::vector<double> latencies;
    std::uint32_t number = 1;
    for (auto _ : state) {
        std::this_thread::sleep_for(kPause);
        const auto start = Clock::now();
        std::memset(mailbox->requestBytes.data(), static_cast<int>(number), kRequestBytes);
        mailbox->request.store(++number, std::memory_order_release);
        futex(mailbox->request, FUTEX_WAKE, 1);
        while (mailbox->answer.load(std::memory_order_acquire) != number) {
            std::this_thread::yield();
        }
        const double took = nanosSince(start);
        state.SetIterationTime(took / 1e9);
        latencies.push_back(took);
    }
    mailbox->request.store(0, std::memory_order_release);
    futex(mailbox->request, FUTEX_WAKE, 1);
    ::waitpid(child, nullptr, 0);
    ::munmap(shared, sizeof(Mailbox));
    bench::reportPercentiles(state, std::move(latencies));
}

} // namespace

BENCHMARK(BM_Socket)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FutexSpin)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
