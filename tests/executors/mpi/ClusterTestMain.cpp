// The cluster pool's tests run under mpirun: every process registers the
// same functions; rank 0 runs the tests, the other ranks serve until rank 0
// ends the cluster.
#include "ClusterTestSupport.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <localpool/LocalPool.hpp>
#include <parallel/language/future/FutureErrors.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <kcos/array.hpp>
#include <kvm/KVM.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace mpipool::testing {

Cluster* gCluster = nullptr; // set by main on rank 0

namespace {

std::atomic<int> gTally{0};

DvArrayVector one(Array value) {
    return DvArrayVector{std::move(value)};
}

double firstValue(const DvArrayVector& in) {
    return in.empty() ? 0.0 : valueOf(in[0].get());
}

[[noreturn]] void fail(double how) {
    using Veldspire::KException::KExceptionEnvelope;
    if (how == 1) {
        throw std::runtime_error("boom");
    }
    if (how == 2) {
        KExceptionEnvelope outer("test:outer", u"outer failed");
        outer.AddCause(KExceptionEnvelope("test:first", u"first cause"));
        outer.AddCause(KExceptionEnvelope(future::errors::StdException(u"second cause"),
                                          matrix::dvCreateStackStruct(0)));
        throw outer;
    }
    if (how == 3) {
        matrix::detail::error_minrhs();
    }
    throw 42;
}

} // namespace

void registerFunctions() {
    registerFunction("plusOne", [](std::size_t, const DvArrayVector& in) {
        kvm::print(u"adding one\n");
        return one(scalar(firstValue(in) + 1));
    });
    registerFunction("identity", [](std::size_t, const DvArrayVector& in) { return in; });
    registerFunction("callFirst", [](std::size_t numOutputs, const DvArrayVector& in) {
        return dvInvokeFunctionHandle(in.at(0).get(), numOutputs,
                                      DvArrayVector(in.begin() + 1, in.end()));
    });
    registerFunction("fail", [](std::size_t, const DvArrayVector& in) -> DvArrayVector {
        fail(firstValue(in));
    });
    registerFunction("untilStopped", [](std::size_t, const DvArrayVector&) {
        while (!stopRequested() && !localpool::stopRequested()) {
            std::this_thread::yield();
        }
        return one(scalar(1));
    });
    registerFunction("tally", [](std::size_t numOutputs, const DvArrayVector& in) {
        if (in.size() == 2) {
            const std::string mark = ranMark(valueOf(in[0].get()), valueOf(in[1].get()));
            std::FILE* file = std::fopen(mark.c_str(), "wx");
            if (file == nullptr) {
                throw std::runtime_error("ran twice");
            }
            std::fclose(file);
        }
        DvArrayVector out{scalar(++gTally)};
        if (numOutputs > 1) {
            out.push_back(scalar(thisRank()));
        }
        return out;
    });
    registerFunction("tallyAndRank", [](std::size_t, const DvArrayVector&) {
        return DvArrayVector{scalar(gTally), scalar(thisRank())};
    });
    // exitOnRank(rank[, ms]): the process of `rank` dies while it runs this,
    // at once or `ms` later.
    registerFunction("exitOnRank", [](std::size_t, const DvArrayVector& in) {
        if (thisRank() == static_cast<int>(firstValue(in))) {
            if (in.size() > 1) {
                std::this_thread::sleep_for(
                    std::chrono::duration<double, std::milli>(valueOf(in[1].get())));
            }
            std::_Exit(0); // a process that dies without a word
        }
        return one(scalar(thisRank()));
    });
    // exitSoonOnRank(rank, ms): returns, and the process of `rank` dies `ms`
    // later, idle.
    registerFunction("exitSoonOnRank", [](std::size_t, const DvArrayVector& in) {
        if (thisRank() == static_cast<int>(firstValue(in))) {
            std::thread([after =
                             std::chrono::duration<double, std::milli>(valueOf(in.at(1).get()))] {
                std::this_thread::sleep_for(after);
                std::_Exit(0);
            }).detach();
        }
        return one(scalar(thisRank()));
    });
    registerFunction("pause", [](std::size_t, const DvArrayVector& in) {
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(firstValue(in)));
        return one(scalar(thisRank()));
    });
    registerFunction("giveObject", [](std::size_t, const DvArrayVector&) {
        const Veldspire::KException::KExceptionEnvelope error("test:object", u"an object");
        return one(
            Array(matrix::to_korvex(kcos::array::create(error.GetExceptionObject())), false));
    });
}

Cluster& cluster() {
    return *gCluster;
}

std::filesystem::path ranMark(double client, double task) {
    return std::filesystem::temp_directory_path() /
           ("qzmpipool-ran-" + std::to_string(client) + "-" + std::to_string(task));
}

Array scalar(double value) {
    return Array(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

Array handle(const char* registeredName) {
    return functionHandle(registeredName);
}

double valueOf(const dvArray* array) {
    return dvGetDoubles(array)[0];
}

bool reaches(const std::shared_ptr<future::FevalFuture>& f, FutureState state) {
    return f->getTask()->wait(state, future::clock::getCurrentSteadyTime() + future::Seconds(60));
}

double outputOf(const std::shared_ptr<future::FevalFuture>& f) {
    EXPECT_TRUE(reaches(f, FutureState::Finished));
    const auto result = f->getTask()->getOutputsOrError();
    if (result.hasError() || !result.value() || result.value()->empty()) {
        ADD_FAILURE() << "no output; error: " << errorOf(f);
        return -1;
    }
    return valueOf(result.value()->at(0).get());
}

std::string errorOf(const std::shared_ptr<future::FevalFuture>& f) {
    EXPECT_TRUE(reaches(f, FutureState::Finished));
    const matrix::unique_dvArray error = f->getErrorAsDvArray();
    return error ? Veldspire::KException::KExceptionEnvelope(error.get()).GetMessageID().str() : "";
}

} // namespace mpipool::testing

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    mpipool::testing::registerFunctions();
    int result = 0;
    {
        mpipool::Cluster cluster(argc, argv);
        if (!cluster.isClient()) {
            return cluster.serve();
        }
        mpipool::testing::gCluster = &cluster;
        const auto interpreter = kvm::KVM::create();
        result = RUN_ALL_TESTS();
    }
    // MPI starts once per process: a second cluster is refused.
    const std::string again =
        mpipool::testing::thrownBy([&] { mpipool::Cluster second(argc, argv); });
    if (again != "KORVEX:mpipool:ClusterEnded") {
        std::cerr << "a second cluster gave '" << again << "'" << std::endl;
        result = 1;
    }
    return result;
}
