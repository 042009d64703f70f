# Developer and CI entry points. Each target installs the Debian packages it lacks
# (scripts/ensure-packages) and builds what it needs with CMake and Ninja.
#
#   make demo        build and run the demonstration
#   make test        host build, warnings as errors, all tests
#   make asan-test   all tests under AddressSanitizer + UndefinedBehaviorSanitizer
#   make coverage    all tests with gcov: line and branch coverage of kl/ and tools/ by folder,
#                    HTML report in build-coverage/coverage/index.html
#   make clang-test  the host build and tests with clang instead of g++
#   make ppc-test    cross-build for 32-bit big-endian PowerPC, all tests under qemu-ppc
#   make bench       Release build, all benchmarks
#   make kill-test   the store's kill figures (a writer SIGKILLed hundreds of times; slow)
#   make soak        the example services under kl-loader with mixed traffic for MINUTES
#                    (default 10), every process's memory watched
#   make mutants     one-line faults planted in kl/ one at a time, the tests run on each (slow)
#   make size        the library's footprint on both targets, beside peer libraries
#   make size-check  the same, failing when it passes the budget in cmake/size-budget
#   make fuzz        a short run of each fuzz target (FUZZ_SECONDS, default 20)
#   make install-check  install into a temporary prefix and build a program against it
#   make packages    Debian packages libkl0, libkl-dev, kl-tools for amd64 (build-pkg) and
#                    powerpc (build-pkg-ppc)
#   make package-check  install the amd64 packages, build a program against them, remove them
#   make format-check   the sources follow .clang-format
#   make docs        the API reference (Doxygen) in build/docs/html; warnings are errors

ENSURE := scripts/ensure-packages
HOST_PACKAGES := cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev nlohmann-json3-dev tshark
BENCH_PACKAGES := $(HOST_PACKAGES) libbenchmark-dev libprotobuf-dev protobuf-compiler libuv1-dev libevent-dev liblmdb-dev libsystemd-dev dbus
PPC_PACKAGES := cmake ninja-build g++-powerpc-linux-gnu qemu-user googletest nlohmann-json3-dev
FUZZ_PACKAGES := cmake ninja-build clang libclang-rt-dev
DOCS_PACKAGES := cmake ninja-build g++ doxygen graphviz nlohmann-json3-dev
COVERAGE_PACKAGES := $(HOST_PACKAGES) gcovr
SIZE_PACKAGES := cmake ninja-build g++ g++-powerpc-linux-gnu qemu-user libuv1 libevent-core-2.1-7 \
  libdbus-1-3 libsystemd0 libprotobuf-lite32
FUZZ_SECONDS ?= 20
CTEST := ctest --output-on-failure -j2

.PHONY: soak all demo test asan-test coverage clang-test ppc-test bench kill-test size size-builds size-check mutants docs packages package-check fuzz install-check format-check clean

all: test

build/build.ninja:
	@$(ENSURE) $(HOST_PACKAGES)
	cmake -S . -B build -G Ninja -DKL_WERROR=ON

test: build/build.ninja
	cmake --build build
	cd build && $(CTEST)

demo: build/build.ninja
	cmake --build build --target kl-msg kl-loader kl-logd build_request loop_demo log_demo objects_service reget_client watcher_service
	@sh examples/demo.sh build

asan-test:
	@$(ENSURE) $(HOST_PACKAGES)
	cmake -S . -B build-asan -G Ninja -DKL_WERROR=ON -DKL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build build-asan
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 $(CTEST)

# The counts start from nothing at each run: what earlier runs reached is not credited.
# Test programs, the helpers they start and the test scripts are not what is measured.
# What gcov itself reports goes to gcov-errors.txt, not into what the tests read. The files
# of kl/ with the most lines not reached, after a run:
#   scripts/coverage-report build-coverage/coverage/summary.json --worst 15
COVERAGE_DIR := build-coverage/coverage
coverage:
	@$(ENSURE) $(COVERAGE_PACKAGES)
	cmake -S . -B build-coverage -G Ninja -DKL_WERROR=ON -DKL_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build build-coverage
	find build-coverage -name '*.gcda' -delete
	@rm -rf $(COVERAGE_DIR) && mkdir -p $(COVERAGE_DIR)
	cd build-coverage && GCOV_ERROR_FILE=$(CURDIR)/$(COVERAGE_DIR)/gcov-errors.txt $(CTEST)
	gcovr --root . --filter kl/ --filter tools/ --exclude '.*_test[^/]*$$' --exclude kl/testing/ \
	  --exclude 'tools/loader/test_publisher\.' --exclude 'tools/soak\.cc' --exclude-throw-branches \
	  --exclude-unreachable-branches -j 2 --json-summary $(COVERAGE_DIR)/summary.json \
	  --html-details $(COVERAGE_DIR)/index.html --html-title 'kl coverage' build-coverage
	@scripts/coverage-report $(COVERAGE_DIR)/summary.json
	@if [ -s $(COVERAGE_DIR)/gcov-errors.txt ]; then \
	  echo "gcov could not write some counts: $(COVERAGE_DIR)/gcov-errors.txt"; \
	  head -n 5 $(COVERAGE_DIR)/gcov-errors.txt; \
	fi

clang-test:
	@$(ENSURE) $(HOST_PACKAGES) clang
	CXX=clang++ cmake -S . -B build-clang -G Ninja -DKL_WERROR=ON
	cmake --build build-clang
	cd build-clang && $(CTEST)

ppc-test:
	@$(ENSURE) $(PPC_PACKAGES)
	cmake -S . -B build-ppc -G Ninja -DKL_WERROR=ON \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake
	cmake --build build-ppc
	cd build-ppc && $(CTEST)

bench:
	@$(ENSURE) $(BENCH_PACKAGES)
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DKL_BUILD_TESTS=OFF -DKL_BUILD_BENCH=ON
	cmake --build build-release
	@for b in build-release/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done

mutants: build/build.ninja
	cmake --build build
	scripts/mutants build scripts/mutants.list

MINUTES ?= 10
soak: build/build.ninja
	cmake --build build --target kl_soak kl-loader objects_service watcher_service
	build/tools/kl_soak $(MINUTES) build/tools/kl-loader build/examples/objects_service \
	  build/examples/watcher_service

kill-test: build/build.ninja
	cmake --build build --target store_kill
	build/store_kill $(KILLS)

# The library alone, as shipped: host Release and PowerPC MinSizeRel.
size-builds:
	@$(ENSURE) $(SIZE_PACKAGES)
	cmake -S . -B build-size-host -G Ninja -DCMAKE_BUILD_TYPE=Release -DKL_BUILD_TESTS=OFF \
	  -DKL_BUILD_TOOLS=OFF >/dev/null
	cmake --build build-size-host --target kl message_heap
	cmake -S . -B build-size-ppc -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DKL_BUILD_TESTS=OFF \
	  -DKL_BUILD_TOOLS=OFF -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake >/dev/null
	cmake --build build-size-ppc --target kl message_heap

size: size-builds
	@scripts/size-report build-size-host build-size-ppc

size-check: size-builds
	@scripts/size-report build-size-host build-size-ppc --check cmake/size-budget

fuzz:
	@$(ENSURE) $(FUZZ_PACKAGES)
	CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKL_BUILD_TESTS=OFF -DKL_BUILD_TOOLS=OFF -DKL_BUILD_FUZZ=ON
	cmake --build build-fuzz
	@for f in build-fuzz/fuzz/*_fuzz; do \
	  name=$$(basename $$f _fuzz); mkdir -p build-fuzz/corpus-$$name; \
	  echo "== $$f for $(FUZZ_SECONDS)s"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 build-fuzz/corpus-$$name fuzz/corpus/$$name || exit 1; \
	done

docs:
	@$(ENSURE) $(DOCS_PACKAGES)
	cmake -S . -B build -G Ninja -DKL_WERROR=ON >/dev/null
	cmake --build build --target docs
	@echo "API reference: build/docs/html/index.html"

install-check: build/build.ninja
	@sh examples/install_check.sh build

# Release builds of the library and tools, packaged with CPack's DEB generator.
packages:
	@$(ENSURE) $(PPC_PACKAGES) $(HOST_PACKAGES) dpkg-dev
	cmake -S . -B build-pkg -G Ninja -DCMAKE_BUILD_TYPE=Release -DKL_BUILD_TESTS=OFF >/dev/null
	cmake --build build-pkg
	cd build-pkg && cpack
	cmake -S . -B build-pkg-ppc -G Ninja -DCMAKE_BUILD_TYPE=Release -DKL_BUILD_TESTS=OFF \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake >/dev/null
	cmake --build build-pkg-ppc
	cd build-pkg-ppc && cpack
	@ls build-pkg/*.deb build-pkg-ppc/*.deb

package-check: packages
	@sh examples/install_check.sh build-pkg --packages build-pkg

format-check:
	@$(ENSURE) clang-format
	git ls-files '*.cc' '*.h' | xargs clang-format --dry-run --Werror

clean:
	rm -rf build build-asan build-coverage build-clang build-ppc build-release build-fuzz
