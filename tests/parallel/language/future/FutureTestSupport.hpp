#pragma once

// Futures over test tasks, and an interpreter for the calling thread.

#include "TestTask.hpp"

#include <parallel/language/future/FevalFuture.hpp>

#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

namespace parallel::language::future::testing {

inline boost::intrusive_ptr<dvArray> scalar(double value) {
    return boost::intrusive_ptr<dvArray>(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

inline boost::intrusive_ptr<dvArray> text(const char* value) {
    return boost::intrusive_ptr<dvArray>(
        matrix::to_korvex(matrix::create(value, std::char_traits<char>::length(value))), false);
}

inline double valueOf(const dvArray* array) {
    return dvGetDoubles(array)[0];
}

// A future over a fresh test task; `numOutputs` outputs requested.
struct TestFuture {
    std::shared_ptr<TestTask> task = TestTask::make();
    std::shared_ptr<FevalFuture> future;

    explicit TestFuture(unsigned int numOutputs = 1, DvArrayVector inputs = {})
        : future(std::make_shared<FevalFuture>(nullptr, nullptr, numOutputs, std::move(inputs),
                                               task)) {}

    TestFuture& submitted() {
        task->doNotifyPending();
        task->doNotifyQueued();
        return *this;
    }
    TestFuture& running() {
        submitted();
        task->doNotifyRunning();
        return *this;
    }
    TestFuture& finishedWith(DvArrayVector outputs) {
        task->result = OutputsOrError(std::optional<DvArrayVector>(std::move(outputs)));
        running();
        task->doNotifyFinished();
        return *this;
    }
    TestFuture& failedWith(std::exception_ptr error) {
        task->result = OutputsOrError(std::move(error));
        running();
        task->doNotifyFinished();
        return *this;
    }
};

// Makes the test's thread an interpreter thread for the test's duration.
class InterpreterTest : public ::testing::Test {
protected:
    std::shared_ptr<kvm::KVM> interpreter = kvm::KVM::create();
};

} // namespace parallel::language::future::testing
