# The user's entry points. CMake does the work underneath.
#   make test   install what is missing, build with sanitizers, run every test
#   make demo   the gateway and cloud console end to end
#   make bench  benchmarks (Release build)
#   make fuzz   fuzz targets (clang, libFuzzer)

JOBS ?= $(shell nproc)
SAN_BUILD := build/asan
TSAN_BUILD := build/tsan
TSA_BUILD := build/tsa
REL_BUILD := build/release
CMAKE_FLAGS ?=

.PHONY: all deps build test test-tsan test-thread-safety demo run bench fuzz clean

all: build

deps:
	@scripts/install_deps.sh

$(SAN_BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=address,undefined $(CMAKE_FLAGS)

build: deps $(SAN_BUILD)/CMakeCache.txt
	cmake --build $(SAN_BUILD) -j $(JOBS)

# Every test under AddressSanitizer and UndefinedBehaviorSanitizer, each fuzz
# target for a few seconds, then the concurrency tests (label "concurrency")
# again under ThreadSanitizer.
test: build
	cd $(SAN_BUILD) && ctest -j $(JOBS) --output-on-failure --timeout 300
	@if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh --smoke; fi
	@$(MAKE) --no-print-directory test-tsan
	@$(MAKE) --no-print-directory test-thread-safety

test-tsan: deps
	@if grep -rqs --include=CMakeLists.txt 'concurrency' tests; then \
	  cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=thread $(CMAKE_FLAGS) >/dev/null && \
	  cmake --build $(TSAN_BUILD) -j $(JOBS) && \
	  cd $(TSAN_BUILD) && ctest -j $(JOBS) -L concurrency --output-on-failure --timeout 300; \
	fi

# The module and the POSIX backend built with clang's lock checks as errors
# (-Wthread-safety, warnings are errors): a broken locking rule fails the build.
test-thread-safety: deps
	CC=clang CXX=clang++ cmake -S . -B $(TSA_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_BUILD_TESTS=OFF \
	  -DCMAKE_CXX_FLAGS=-Wthread-safety $(CMAKE_FLAGS) >/dev/null
	cmake --build $(TSA_BUILD) -j $(JOBS) --target smart_frame sf_posix

demo: deps
	@if [ -x scripts/demo.sh ]; then scripts/demo.sh; else echo "the demo is not built yet"; fi

run: deps
	@if [ -x scripts/run.sh ]; then scripts/run.sh; else echo "the gateway daemon is not built yet"; fi

bench: deps
	@if [ -d bench ] && [ -f bench/CMakeLists.txt ]; then \
	  cmake -S . -B $(REL_BUILD) -DCMAKE_BUILD_TYPE=Release -DSF_BUILD_TESTS=OFF $(CMAKE_FLAGS) && \
	  cmake --build $(REL_BUILD) -j $(JOBS) && scripts/bench.sh $(REL_BUILD); \
	else echo "the benchmarks are not built yet"; fi

fuzz: deps
	@if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh; else echo "the fuzz targets are not built yet"; fi

clean:
	rm -rf build
