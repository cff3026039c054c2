// qz-test-label: concurrency
#include <foundation/usm/Detail.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <future>
#include <thread>

using Store = foundation::usm::Detail<foundation::usm::scope::Process>;

namespace {

std::atomic<int> destroyed{0};

struct Counted {
    int value;
    explicit Counted(int v) : value(v) {}
    ~Counted() { ++destroyed; }
};

Store::Holder hold(Counted* object) {
    return Store::Holder(object, [](void* p) { delete static_cast<Counted*>(p); });
}

} // namespace

TEST(ProcessStore, RacingInsertsAgreeOnOneObjectFoundUnderItsIdentifierAndDestroyTheOther) {
    const Store::ID id = Store::getNextID(typeid(Counted));
    EXPECT_NE(Store::getNextID(typeid(Counted)), id);
    EXPECT_EQ(Store::find(id, typeid(Counted)), nullptr);
    const int before = destroyed.load();
    std::barrier start(2);
    auto insert = [&](int value) {
        auto holder = hold(new Counted(value));
        start.arrive_and_wait();
        return Store::findOrInsert(id, typeid(Counted), std::move(holder));
    };
    auto first = std::async(std::launch::async, insert, 1);
    auto second = std::async(std::launch::async, insert, 2);
    void* a = first.get();
    void* b = second.get();
    EXPECT_EQ(a, b);
    EXPECT_EQ(Store::find(id, typeid(Counted)), a);
    EXPECT_EQ(destroyed.load() - before, 1);
}

TEST(ProcessStoreDeathTest, FindingWithAnotherTypeEndsTheProcess) {
    const Store::ID id = Store::getNextID(typeid(Counted));
    Store::findOrInsert(id, typeid(Counted), hold(new Counted(1)));
    EXPECT_DEATH(Store::find(id, typeid(int)), "Fatal error: Process storage slot holds");
}
