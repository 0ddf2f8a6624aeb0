# The user's entry points. CMake does the work underneath.
#   make test   install what is missing, build with sanitizers, run every test
#   make demo   the gateway and cloud console end to end
#   make bench  benchmarks (Release build)
#   make fuzz   fuzz targets (clang, libFuzzer)
#   make test-cross    the module's unit tests on 32- and 64-bit ARM under qemu-user
#   make package       .deb files of the library (-dev) and the gateway daemon
#   make test-brokers  the demo scenario against a private RabbitMQ node
#   make web           build the web console (web/dist); make test-web its tests
#   make test-cluster  the gateway and the console on a 3-node RabbitMQ cluster while nodes die
#   make test-fleet-small  5 gateways on that cluster, one node killed (part of make test)
#   make bench-fleet   N gateways (FLEET=100) on that cluster: connect time, throughput, fail-over (not in make test)

JOBS ?= $(shell nproc)
SAN_BUILD := build/asan
TSAN_BUILD := build/tsan
TSA_BUILD := build/tsa
REL_BUILD := build/release
CMAKE_FLAGS ?=

.PHONY: all deps build web test-web test test-tsan test-thread-safety test-cross package test-brokers test-cluster test-fleet-small bench-fleet demo run bench fuzz clean

all: build

deps:
	@scripts/install_deps.sh

$(SAN_BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=address,undefined $(CMAKE_FLAGS)

build: deps $(SAN_BUILD)/CMakeCache.txt
	cmake --build $(SAN_BUILD) -j $(JOBS)

# Every test under AddressSanitizer and UndefinedBehaviorSanitizer, each fuzz
# target for a few seconds, then the concurrency tests (label "concurrency")
# again under ThreadSanitizer, the lock analysis, and a small fleet on a
# RabbitMQ cluster.
test: build
	cd $(SAN_BUILD) && ctest -j $(JOBS) --output-on-failure --timeout 300
	@$(MAKE) --no-print-directory test-web
	@if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh --smoke; fi
	@$(MAKE) --no-print-directory test-tsan
	@$(MAKE) --no-print-directory test-thread-safety
	@$(MAKE) --no-print-directory test-fleet-small

# The web console: built with npm (web/dist) from the lock file's packages.
web: deps
	@scripts/build_web.sh >/dev/null

# The web console's tests: its protocol code (vitest), then the page in
# Debian's chromium against a private mosquitto, sfcloud serve and sfgw of
# the sanitizer build (about 80 s, most of it a device's 60 s time-out).
# Screenshots of every step in build/web-e2e/.
test-web: web $(SAN_BUILD)/CMakeCache.txt
	cmake --build $(SAN_BUILD) -j $(JOBS) --target sfcloud sfgw
	cd web && npm run --silent test
	cd web && SF_BIN_DIR=$(CURDIR)/$(SAN_BUILD)/apps SF_WEB_E2E_DIR=$(CURDIR)/build/web-e2e node --test --test-concurrency=1 e2e/

test-tsan: deps
	@if grep -rqs --include=CMakeLists.txt 'concurrency' tests; then \
	  cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_SANITIZE=thread $(CMAKE_FLAGS) >/dev/null && \
	  cmake --build $(TSAN_BUILD) -j $(JOBS) --target concurrency_tests && \
	  cd $(TSAN_BUILD) && ctest -j $(JOBS) -L concurrency --output-on-failure --timeout 300; \
	fi

# The module, the POSIX backend and the apps (gateway daemon, cloud console)
# built with clang's lock checks as errors (-Wthread-safety, warnings are
# errors): a broken locking rule fails the build.
# Then a file of deliberately broken rules must be rejected line by line, so
# a check that silently stopped checking fails too.
test-thread-safety: deps
	CC=clang CXX=clang++ cmake -S . -B $(TSA_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSF_BUILD_TESTS=OFF \
	  -DCMAKE_CXX_FLAGS=-Wthread-safety $(CMAKE_FLAGS) >/dev/null
	cmake --build $(TSA_BUILD) -j $(JOBS) --target smart_frame sf_posix sfgw sfcloud
	scripts/check_lock_analysis.sh

# The module, the fakes and the module's unit tests cross-built for ARM
# (build/cross-armhf, build/cross-arm64) and run under qemu-user.
test-cross:
	JOBS=$(JOBS) scripts/cross_test.sh

# .deb files of the library (libsmart-frame-dev) and the daemon (sfgw), from
# a Release build without tests, in build/package/debs.
PKG_BUILD := build/package
package: deps
	cmake -S . -B $(PKG_BUILD) -DCMAKE_BUILD_TYPE=Release -DSF_BUILD_TESTS=OFF -DSF_BUILD_BENCH=OFF \
	  -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_FLAGS) >/dev/null
	cmake --build $(PKG_BUILD) -j $(JOBS) --target smart_frame sf_posix sf_base64 sfgw
	cd $(PKG_BUILD) && cpack --config CPackConfig.cmake -B debs
	@ls -1 $(PKG_BUILD)/debs/*.deb

# The demo scenario against a private RabbitMQ node (MQTT plugin), outage included.
test-brokers:
	scripts/rabbitmq_scenario.sh

# The gateway on a 3-node RabbitMQ cluster on loopback (scripts/rabbitmq_cluster.sh):
# kill -9 the gateway's node, then the console's; nothing lost (build/cluster).
# Then the small fleet: 5 gateways, one node killed, every gateway back and no value lost.
test-cluster:
	scripts/cluster_scenario.sh

# A small fleet (5 gateways of the sanitizer build) on the 3-node RabbitMQ
# cluster, one node killed: every gateway back, no value lost.
test-fleet-small: $(SAN_BUILD)/CMakeCache.txt
	cmake --build $(SAN_BUILD) -j $(JOBS) --target sfgw sfcloud
	SF_BIN_DIR=$(CURDIR)/$(SAN_BUILD)/apps FLEET=5 MEASURE_S=5 SF_FLEET_ASSERT=1 FLEET_DIR=build/fleet-small \
	  scripts/fleet_bench.sh

# A fleet of FLEET gateways (default 100) against that cluster, one node killed;
# the table goes to docs/benchmarks.md (build/fleet).
FLEET ?= 100
bench-fleet:
	FLEET=$(FLEET) scripts/fleet_bench.sh

demo: deps
	@if [ -x scripts/demo.sh ]; then scripts/demo.sh; else echo "the demo is not built yet"; fi

run: deps
	@if [ -x scripts/run.sh ]; then scripts/run.sh; else echo "the gateway daemon is not built yet"; fi

# A missed goal (scripts/bench.sh exits 1, or 3 when a figure spread too
# much to be judged) still lets the web console's benchmark run; make bench
# then exits with the goals' status.
bench: deps
	@if [ -d bench ] && [ -f bench/CMakeLists.txt ]; then \
	  cmake -S . -B $(REL_BUILD) -DCMAKE_BUILD_TYPE=Release -DSF_BUILD_TESTS=OFF $(CMAKE_FLAGS) && \
	  cmake --build $(REL_BUILD) -j $(JOBS) || exit 1; \
	  goals=0; scripts/bench.sh $(REL_BUILD) || goals=$$?; \
	  scripts/build_web.sh >/dev/null && \
	  (cd web && SF_BIN_DIR=$(CURDIR)/$(REL_BUILD)/apps SF_WEB_BENCH_DIR=$(CURDIR)/$(REL_BUILD)/web-bench node bench/run.mjs) || exit 1; \
	  exit $$goals; \
	else echo "the benchmarks are not built yet"; fi

fuzz: deps
	@if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh; else echo "the fuzz targets are not built yet"; fi

clean:
	rm -rf build
