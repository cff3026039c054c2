#pragma once

// Handles on requests submitted to an interpreter's command distributor, and
// the interpreter-side helpers of submitting one. Any thread.

#include <cmddistributor/CmdDistributor.hpp>
#include <host/Export.hpp>
#include <kvm/KVM.hpp>

#include <boost/variant.hpp>

#include <functional>
#include <memory>
#include <tuple>

namespace kvm {

// The interpreter a request is for: the interpreter object, or its identifier.
using Target = boost::variant<std::shared_ptr<KVM>, kvutil::contextmgr::KcrID>;

class QZHOST_API TaskReference {
public:
    virtual ~TaskReference();
    // Runs `continuation` once the request has completed (at once if it has).
    virtual void addContinuation(std::function<void()> continuation) = 0;
    // Releases a request submitted not ready.
    virtual void setReadyToExecute() = 0;
    // Cancels the request unless it is running or done. `interrupt` is part
    // of the interface; a running request is never stopped.
    virtual cmddistributor::CancelStatus cancel_callback(bool interrupt) = 0;

    // cancel_callback(true).
    cmddistributor::CancelStatus cancel() { return cancel_callback(true); }
};

namespace detail {

// A request held by a distributor; holds the distributor weakly.
class QZHOST_API CmdDistributorTaskReference : public TaskReference {
public:
    CmdDistributorTaskReference(const std::shared_ptr<cmddistributor::CmdDistributor>& distributor,
                                cmddistributor::IDType id);
    void addContinuation(std::function<void()> continuation) override;
    void setReadyToExecute() override;
    cmddistributor::CancelStatus cancel_callback(bool interrupt) override;

private:
    std::weak_ptr<cmddistributor::CmdDistributor> distributor_;
    cmddistributor::IDType id_;
};

// The reference of a request that no distributor took: it is complete.
class QZHOST_API NullCmdDistributorTaskReference : public TaskReference {
public:
    void addContinuation(std::function<void()> continuation) override;
    void setReadyToExecute() override;
    cmddistributor::CancelStatus cancel_callback(bool interrupt) override;
};

// A new request ID: 1, 2, 3, ... for the life of the process.
QZHOST_API cmddistributor::IDType createID();

// The distributor of `target` (null when it has none) and the output and
// error sinks of `options`.
QZHOST_API std::tuple<std::shared_ptr<cmddistributor::CmdDistributor>, cmddistributor::Sink,
                      cmddistributor::Sink>
getCmdDistributorAndSinks(const Target& target, const cmddistributor::RunOptions& options);

} // namespace detail
} // namespace kvm
