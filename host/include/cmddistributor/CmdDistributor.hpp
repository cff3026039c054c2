#pragma once

// The command distributor of an interpreter: hands work from any thread to
// the interpreter's own thread. Each request carries its work (an IIP), where
// its printed text goes, and a promise delegate that receives the outcome.
//
// Life of a request (each step under the distributor's mutex):
//
//   Held --setReadyToExecute--> Queued --dequeued--> Running --> Done
//   Held | Queued --cancel--> Done (status Cancelled; the work never runs)
//
//   - A request submitted not ready is Held inside the distributor and does
//     not occupy the interpreter's queues; a ready one is Queued at once.
//   - Queued requests wait in the interpreter's queue named by their run
//     options ("serialQueueWork" when none is named) and run at its next
//     dequeue point (Iqm::processOnce, processUntil, runQueue).
//   - A Running request always runs to its end: cancel answers Running and
//     changes nothing.
//   - Every request's delegate receives exactly one result: the work's value,
//     its error, or the cancellation. Shutting the distributor down (the
//     interpreter going away) cancels every request not yet Done; a request
//     submitted afterwards completes at once with AlreadyCancelledException.
//
// Ownership: the distributor owns each request until it is Done; the
// interpreter (kvm::KVM) owns its distributor. Continuations added to a
// request run, without the mutex, in the thread that completes it.
//
// Threads: submit, setReadyToExecute, cancel, addContinuation and shutdown
// from any thread; the work runs on the interpreter thread. One mutex per
// distributor guards its live requests and their stages, one process-wide
// mutex the registry of distributors; neither is held while work, delegates
// or continuations run.

#include <cmddistributor/RuntimeException.hpp>
#include <host/Export.hpp>
#include <kvm/Future.hpp>
#include <kvm/KVM.hpp>

#include <boost/any.hpp>
#include <boost/core/demangle.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <typeinfo>
#include <utility>

namespace iqm {
class Iqm;
}

namespace foundation::msg_svc::exchange {
// Identifies a request to its distributor; the default value, 0, names none.
using IDType = std::uint64_t;
} // namespace foundation::msg_svc::exchange

namespace cmddistributor {

using IDType = foundation::msg_svc::exchange::IDType;
// The interpreter stream a request belongs to; this module's requests use -2.
using IqmStreamID = int;
// Where a request's printed text goes; null means the interpreter's own
// output (kvm::print).
using StreamBuffer = std::basic_streambuf<char16_t>;
using Sink = boost::shared_ptr<StreamBuffer>;

// When a ready request leaves the distributor: at the interpreter's next
// dequeue point of its queue.
enum class WhenToDequeue : int { AtDequeuePoint = 1 };

struct SinkTraits {
    // Flush the stream after each piece of text written to it.
    bool flushAfterWrite = true;
};

// Execution statuses of a request.
enum ExecutionStatus : int {
    Completed = 0,
    Failed = 1,        // the work raised an error
    NoDistributor = 2, // set by submitters that found no distributor
    Cancelled = 4,     // cancelled before it ran
};

// The request reached a distributor that had already shut down; it never ran.
class QZHOST_API AlreadyCancelledException : public std::runtime_error {
public:
    AlreadyCancelledException();
};

class QZHOST_API RunOptions {
public:
    // A queue name shared by the options that use it: a submitter that
    // names the same queue on every request keeps one and copies no string.
    using QueueName = std::shared_ptr<const std::u16string>;

    // Work whose printed text goes to `output` and whose failure message
    // goes to `error` (null: the interpreter's own output). Ready, queue
    // "serialQueueWork".
    RunOptions(Sink output, Sink error, SinkTraits outputTraits, SinkTraits errorTraits);
    // Ready work in `queueName` (empty: "serialQueueWork"), default sinks.
    RunOptions(WhenToDequeue mode, std::u16string queueName);
    // As above, the name shared as it is (null or empty: "serialQueueWork").
    RunOptions(WhenToDequeue mode, QueueName queueName);

    static SinkTraits getDefaultSinkTraits() noexcept { return SinkTraits{}; }

    void setReadyToExecute(bool ready) noexcept { ready_ = ready; }
    bool isReadyToExecute() const noexcept { return ready_; }
    void setDequeueMode(WhenToDequeue mode) noexcept { mode_ = mode; }
    void setQueueName(std::u16string name);
    // Never empty: the default queue when none was set.
    const std::u16string& getQueueName() const noexcept { return *queueName_; }
    const Sink& getOutputStream() const noexcept { return output_; }
    const Sink& getErrorStream() const noexcept { return error_; }
    const SinkTraits& getOutputTraits() const noexcept { return outputTraits_; }
    const SinkTraits& getErrorTraits() const noexcept { return errorTraits_; }

private:
    Sink output_;
    Sink error_;
    SinkTraits outputTraits_;
    SinkTraits errorTraits_;
    bool ready_ = true;
    WhenToDequeue mode_ = WhenToDequeue::AtDequeuePoint;
    QueueName queueName_; // never null
};

// What running a request's work gave.
struct IIPResult {
    int executionStatus = Completed;
    boost::any value;         // when Completed
    std::exception_ptr error; // when Failed
    std::string message;      // when not Completed
};

// The executable part of a request. Interpreter thread.
class QZHOST_API IIP {
public:
    virtual ~IIP();
    // Runs the work; its error becomes a Failed result, never an exception.
    virtual IIPResult execute() = 0;
};

namespace detail {
inline std::string demangle(const std::type_info& type) {
    return boost::core::demangle(type.name());
}
} // namespace detail

// Work held as a function returning its value as boost::any.
class QZHOST_API PackagedTaskIIP : public IIP {
public:
    // Throws std::invalid_argument "func cannot be empty.".
    explicit PackagedTaskIIP(std::function<boost::any()> func);
    IIPResult execute() override;

    // Wraps `func` for the constructor. Calling the wrapper of an empty
    // `func` fails with "cannot invoke empty " and its type's name.
    template <class T>
    static std::function<boost::any()> createFunc(boost::function<T()> func) {
        return [func = std::move(func)]() -> boost::any {
            if (!func) {
                throw std::runtime_error("cannot invoke empty " + detail::demangle(typeid(func)));
            }
            if constexpr (std::is_void_v<T>) {
                func();
                return boost::any();
            } else {
                return boost::any(func());
            }
        };
    }

private:
    std::function<boost::any()> func_;
};

// A request: its sinks and its work. The stream it belongs to and the label
// naming who submitted it (static text, such as a literal) say where it comes
// from at the call; the request keeps neither. A request without an IIP
// cannot be submitted.
class QZHOST_API CmdRequest {
public:
    CmdRequest(IqmStreamID stream, Sink output, Sink error, const char* sourceLabel);
    virtual ~CmdRequest();
    CmdRequest(const CmdRequest&) = delete;
    CmdRequest& operator=(const CmdRequest&) = delete;

    virtual IIP* getIIP() noexcept { return nullptr; }
    const Sink& getOutputSink() const noexcept { return output_; }
    const Sink& getErrorSink() const noexcept { return error_; }

private:
    Sink output_;
    Sink error_;
};

// A request whose work is a function giving a T.
template <class T>
class FcnCmdRequest : public CmdRequest {
public:
    FcnCmdRequest(IqmStreamID stream, Sink output, Sink error, boost::function<T()> func,
                  const char* sourceLabel)
        : CmdRequest(stream, std::move(output), std::move(error), sourceLabel),
          packaged_task(PackagedTaskIIP::createFunc<T>(std::move(func))) {}

    IIP* getIIP() noexcept override { return &packaged_task; }

    PackagedTaskIIP packaged_task;
};

// Receives a request's result from the distributor, once, in the thread that
// completes the request.
class QZHOST_API PromiseDelegate {
public:
    virtual ~PromiseDelegate();
    // A null result breaks the distributor's contract and ends the process.
    virtual void deliver(const IIPResult* result) = 0;
};

namespace detail {
// The error a result that is not Completed stands for. Any thread.
QZHOST_API std::exception_ptr errorOf(const IIPResult& result);
// Ends the process unless `result` is set.
QZHOST_API void requireResult(const IIPResult* result);

// Completes `promise` with `error`, keeping the error's own type for the
// reader (Boost's own capture would slice standard exception subclasses).
template <class T>
void setError(boost::promise<T>& promise, const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (...) {
        promise.set_exception(boost::exception_ptr(std::current_exception()));
    }
}
} // namespace detail

// Completes a Boost promise of T: the value of a Completed result, otherwise
// a RuntimeException with the status (AlreadyCancelledException for a request
// that reached a distributor after it shut down).
template <class T>
class PromiseDelegateT : public PromiseDelegate {
public:
    kvm::Future<T> getFuture() { return kvm::Future<T>(promise_.get_future()); }

    void deliver(const IIPResult* result) override {
        detail::requireResult(result);
        if (result->executionStatus != Completed) {
            detail::setError(promise_, detail::errorOf(*result));
            return;
        }
        if constexpr (std::is_void_v<T>) {
            promise_.set_value();
        } else {
            try {
                promise_.set_value(boost::any_cast<T>(result->value));
            } catch (const boost::bad_any_cast&) {
                detail::setError(promise_, std::current_exception());
            }
        }
    }

private:
    boost::promise<T> promise_;
};

enum class CancelStatus {
    Cancelled, // it was Held or Queued and will never run
    Running,   // it is running and will run to its end
    Done,      // it had completed, or is not known to the distributor
};

class QZHOST_API CmdDistributor : public std::enable_shared_from_this<CmdDistributor> {
public:
    // A started distributor of interpreter `id`, found through instance(id)
    // until shutdown. Called by the interpreter that owns it.
    static std::shared_ptr<CmdDistributor> create(kvutil::contextmgr::KcrID id,
                                                  std::shared_ptr<iqm::Iqm> queueManager);
    // The distributor of interpreter `id`; null when it has none. Any thread.
    static std::shared_ptr<CmdDistributor> instance(kvutil::contextmgr::KcrID id);

    ~CmdDistributor();
    CmdDistributor(const CmdDistributor&) = delete;
    CmdDistributor& operator=(const CmdDistributor&) = delete;

    // Takes `request` with `delegate` for its result. A not-ready request
    // needs an ID that no live request has. Throws std::invalid_argument
    // ("request cannot be null.", "request must contain an IIP.",
    // "delegate cannot be null.", "request ID is missing or in use.").
    void submit(boost::shared_ptr<CmdRequest> request, boost::shared_ptr<PromiseDelegate> delegate,
                RunOptions options, IDType id);
    // Moves Held request `id` to its queue; anything else is left alone.
    void setReadyToExecute(IDType id);
    // Cancels request `id` unless it runs or is done (see CancelStatus).
    CancelStatus cancel(IDType id);
    // Runs `continuation` once request `id` is Done: at once when it is done
    // or unknown.
    void addContinuation(IDType id, std::function<void()> continuation);

    // Cancels every request not yet done and stops taking new ones; the
    // distributor is no longer found through instance(). Any thread.
    void shutdown();

private:
    CmdDistributor(kvutil::contextmgr::KcrID id, std::shared_ptr<iqm::Iqm> queueManager);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace cmddistributor
