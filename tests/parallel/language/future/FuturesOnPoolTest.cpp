// qz-test-label: concurrency
#include "FutureTestSupport.hpp"

#include <localpool/LocalPool.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>

#include <latch>
#include <limits>
#include <set>
#include <stdexcept>

namespace parallel::language::future {
namespace {

using testing::scalar;
using testing::valueOf;
using Futures = std::vector<std::shared_ptr<FutureBase>>;

const Seconds kForever(std::numeric_limits<double>::max());

boost::intrusive_ptr<dvArray> function(matrix::FunctionBody body) {
    return boost::intrusive_ptr<dvArray>(
        matrix::to_korvex(matrix::createFunctionHandle("f", std::move(body))), false);
}

// Squares its input once `gate` opens.
boost::intrusive_ptr<dvArray> gatedSquare(std::latch& gate) {
    return function([&gate](std::size_t, const DvArrayVector& in) {
        gate.wait();
        const double x = dvGetDoubles(in.at(0).get())[0];
        return DvArrayVector{scalar(x * x)};
    });
}

class FuturesOnPool : public testing::InterpreterTest {
protected:
    localpool::LocalPool pool{2};
};

TEST_F(FuturesOnPool, FetchNextDrainsEvaluationsAsTheyFinish) {
    std::latch gate(1);
    Futures futures;
    for (int i = 1; i <= 6; ++i) {
        futures.push_back(pool.submit(gatedSquare(gate), 1, {scalar(i)}));
    }
    gate.count_down();
    std::set<double> seen;
    for (int i = 0; i < 6; ++i) {
        auto [state, index, outputs] = FutureBase::fetchNext(futures, 1, kForever);
        ASSERT_EQ(state, FetchNextState::Fetched);
        EXPECT_EQ(valueOf(outputs.at(0).get()), double((index + 1) * (index + 1)));
        seen.insert(valueOf(outputs[0].get()));
    }
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_EQ(std::get<0>(FutureBase::fetchNext(futures, 1, kForever)),
              FetchNextState::NoUnreadFutures);
}

TEST_F(FuturesOnPool, FetchOutputsWaitsForAllAndReportsTheFailure) {
    std::latch gate(1);
    const Futures good{pool.submit(gatedSquare(gate), 1, {scalar(2)}),
                       pool.submit(gatedSquare(gate), 1, {scalar(3)})};
    gate.count_down();
    const DvArrayVector joined = FutureBase::fetchOutputs(good, true, 1);
    const auto values = dvGetDoubles(joined.at(0).get());
    EXPECT_EQ(std::vector<double>(values.begin(), values.end()), (std::vector<double>{4, 9}));

    const auto failing =
        pool.submit(function([](std::size_t, const DvArrayVector&) -> DvArrayVector {
                        throw std::runtime_error("matrix is singular");
                    }),
                    1, {});
    try {
        FutureBase::fetchOutputs({failing}, true, 1);
        FAIL() << "the failure was not raised";
    } catch (const Veldspire::KException::KExceptionEnvelope& error) {
        EXPECT_EQ(error.GetID(), "KORVEX:parallel:future:ExecutionErrors");
        ASSERT_EQ(error.GetCauses().size(), 1u);
        EXPECT_EQ(error.GetCauses()[0].GetID(), "KORVEX:parallel:future:StdException");
        EXPECT_NE(error.GetCauses()[0].GetMessage().find(u"matrix is singular"),
                  std::u16string::npos);
    }
}

} // namespace
} // namespace parallel::language::future
