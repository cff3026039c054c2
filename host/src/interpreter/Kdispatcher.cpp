// The stand-in dispatcher: one scope, "base", holding the built-ins and the
// functions defined at run time.

#include <interpreter/Kdispatcher.hpp>

#include <kvm/KVM.hpp>

#include <stdexcept>
#include <utility>

Kfunction_handle::Kfunction_handle(std::string name, matrix::FunctionBody body)
    : name_(std::move(name)), body_(std::move(body)) {
    if (!body_) {
        throw std::invalid_argument("Function '" + name_ + "' has no body.");
    }
}

boost::intrusive_ptr<dvArray>
Kfunction_handle::operator()(const std::vector<boost::intrusive_ptr<dvArray>>& inputs) const {
    auto outputs = body_(1, inputs);
    if (outputs.empty()) {
        matrix::detail::error_maxlhs();
    }
    return std::move(outputs.front());
}

Kdispatcher::Kdispatcher() : scope_{"base"} {
    define("vertcat", interpreter::vertcat);
}

Kdispatcher& Kdispatcher::getDispatcher() {
    const auto kvm = kvm::Factory::getCurrentLocalKVM();
    if (!kvm) {
        throw std::logic_error("The dispatcher is reached from an interpreter thread only.");
    }
    return kvm->getDispatcher();
}

const std::string& Kdispatcher::GetCurrentlyExecutingFunction() const noexcept {
    return executing_;
}

const KfunctionScope& Kdispatcher::GetCurrentlyExecutingFunctionScope() const noexcept {
    return scope_;
}

// Every scope sees the one scope of the stand-in.
std::optional<Kfunction_handle> Kdispatcher::lookup(std::string_view name,
                                                    const KfunctionScope&) const {
    const auto it = functions_.find(name);
    if (it == functions_.end()) {
        return std::nullopt;
    }
    return Kfunction_handle(it->first, it->second);
}

void Kdispatcher::define(std::string name, matrix::FunctionBody body) {
    if (!body) {
        throw std::invalid_argument("Function '" + name + "' has no body.");
    }
    functions_.insert_or_assign(std::move(name), std::move(body));
}
