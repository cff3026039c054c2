# Entry points. Each target installs missing Debian packages (scripts/bootstrap),
# configures its own build folder and builds what it needs.
#
#   make demo       build and run examples/demo; it writes its timeline
#                   to build/release/demo-timeline.{json,svg}  (build/release)
#                   It also builds examples/cluster, which runs under
#                   `scripts/cluster-run -n 3 build/release/examples/cluster`
#   make test       build and run the unit tests           (build/release)
#   make sanitize   all tests under ASan+UBSan             (build/asan)
#                   'concurrency' tests under TSan         (build/tsan)
#   make thread-safety  the libraries built by Clang with its lock
#                   analysis, warnings as errors           (build/clang)
#   make bench      build and run the benchmarks           (build/bench)
#   make package    Debian packages of the libraries, in build/package/packages
#   make docs       the HTML API reference, in build/docs/html
#   make format     clang-format the sources in place
#   make format-check  fail when a source is not clang-formatted
#   make clean      remove build/

SHELL := bash
.SHELLFLAGS := -euo pipefail -c

JOBS ?= 2
# Per-test limit, so that a hang fails the run instead of using up its time.
TEST_TIMEOUT ?= 300
BENCH_ARGS ?=

CMAKE_CONFIGURE := cmake -S . -G "Unix Makefiles"
CTEST := ctest --output-on-failure -j$(JOBS) --timeout $(TEST_TIMEOUT)

RELEASE_FLAGS := -DCMAKE_BUILD_TYPE=Release -DQZ_SANITIZER= \
                 -DQZ_BUILD_TESTS=ON -DQZ_BUILD_EXAMPLES=ON -DQZ_BUILD_BENCHMARKS=OFF
PACKAGE_FLAGS := -DCMAKE_BUILD_TYPE=Release -DQZ_SANITIZER= -DCMAKE_INSTALL_PREFIX=/usr \
                 -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_EXAMPLES=OFF -DQZ_BUILD_BENCHMARKS=OFF
BENCH_FLAGS   := -DCMAKE_BUILD_TYPE=Release -DQZ_SANITIZER= \
                 -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_EXAMPLES=OFF -DQZ_BUILD_BENCHMARKS=ON
SANITIZE_FLAGS := -DCMAKE_BUILD_TYPE=Debug \
                  -DQZ_BUILD_TESTS=ON -DQZ_BUILD_EXAMPLES=OFF -DQZ_BUILD_BENCHMARKS=OFF

export ASAN_OPTIONS  := halt_on_error=1:print_stacktrace=1:detect_leaks=1
export UBSAN_OPTIONS := halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS  := halt_on_error=1:second_deadlock_stack=1

FORMAT_DIRS := host executors parallel tests bench examples

# The targets share build folders and the machine's cores: run them one at a time.
.NOTPARALLEL:

.PHONY: demo test package package-check docs sanitize sanitize-address sanitize-thread thread-safety bench format format-check clean bootstrap

bootstrap:
	@bash scripts/bootstrap

demo: bootstrap
	$(CMAKE_CONFIGURE) -B build/release $(RELEASE_FLAGS)
	cmake --build build/release --target demo cluster -j$(JOBS)
	build/release/examples/demo build/release

test: bootstrap
	$(CMAKE_CONFIGURE) -B build/release $(RELEASE_FLAGS)
	cmake --build build/release -j$(JOBS)
	$(CTEST) --test-dir build/release

# dpkg-shlibdeps (dpkg-dev) computes the runtime package's dependencies.
package:
	@bash scripts/bootstrap dpkg-dev
	$(CMAKE_CONFIGURE) -B build/package $(PACKAGE_FLAGS)
	cmake --build build/package -j$(JOBS)
	rm -rf build/package/packages
	cd build/package && cpack

# Unpacks the packages into a scratch root and builds and runs programs
# against them alone: the install smoke test's consumer and a README example.
package-check: package
	bash scripts/check-packages build/package/packages build/package-check

docs:
	@bash scripts/bootstrap doxygen
	$(CMAKE_CONFIGURE) -B build/docs -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_EXAMPLES=OFF -DQZ_BUILD_BENCHMARKS=OFF
	cmake --build build/docs --target docs

sanitize: sanitize-address sanitize-thread

sanitize-address: bootstrap
	$(CMAKE_CONFIGURE) -B build/asan $(SANITIZE_FLAGS) -DQZ_SANITIZER=address,undefined
	cmake --build build/asan -j$(JOBS)
	$(CTEST) --test-dir build/asan

# Only the executables of the tests labelled 'concurrency' are built here.
sanitize-thread: bootstrap
	$(CMAKE_CONFIGURE) -B build/tsan $(SANITIZE_FLAGS) -DQZ_SANITIZER=thread
	targets=$$(ctest --test-dir build/tsan -N -L concurrency | sed -n 's/^ *Test *#[0-9]*: *//p'); \
	if [[ -z "$$targets" ]]; then echo "sanitize-thread: no test is labelled 'concurrency'"; exit 0; fi; \
	cmake --build build/tsan -j$(JOBS) --target $$targets; \
	$(CTEST) --test-dir build/tsan -L concurrency

THREAD_SAFETY_FLAGS := -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DQZ_SANITIZER= \
                       -DQZ_THREAD_SAFETY_ANALYSIS=ON -DQZ_BUILD_TESTS=OFF \
                       -DQZ_BUILD_EXAMPLES=OFF -DQZ_BUILD_BENCHMARKS=OFF
THREAD_SAFETY_TARGETS := qzhost qzparallellanguagefuture qzexecutor qzlocalpool qzmpipool

thread-safety:
	@bash scripts/bootstrap clang
	$(CMAKE_CONFIGURE) -B build/clang $(THREAD_SAFETY_FLAGS)
	cmake --build build/clang -j$(JOBS) --target $(THREAD_SAFETY_TARGETS)

bench: bootstrap
	$(CMAKE_CONFIGURE) -B build/bench $(BENCH_FLAGS)
	cmake --build build/bench -j$(JOBS)
	while read -r executable; do \
	  [[ -n "$$executable" ]] || continue; \
	  echo "== $$executable"; \
	  "$$executable" $(BENCH_ARGS); \
	done < build/bench/benchmarks.list

FORMAT_SOURCES := find $(FORMAT_DIRS) -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.h' \) -print0

format:
	@bash scripts/bootstrap clang-format
	$(FORMAT_SOURCES) | xargs -0 -r clang-format -i

format-check:
	@bash scripts/bootstrap clang-format
	$(FORMAT_SOURCES) | xargs -0 -r clang-format --dry-run -Werror

clean:
	rm -rf build
