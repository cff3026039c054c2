// Uses the installed headers and library: an All-policy promise over two
// events is ready once both are set.
#include <parallel/language/future/MultiEventPromise.hpp>

int main() {
    using parallel::language::future::MultiEventPromise;
    MultiEventPromise promise(MultiEventPromise::Policy::All, 2);
    promise.setOne();
    promise.setOne();
    return promise.getFuture().is_ready() ? 0 : 1;
}
