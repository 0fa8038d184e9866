# Two commands do everything on a fresh Debian machine: `make demo` and `make test`. Both install what is missing.

# The list of Debian packages, by what needs them.
BUILD_PACKAGES = cmake g++ binutils ninja-build ccache openjdk-17-jdk-headless liblmdb-dev libxxhash-dev libinih-dev \
                 libcli11-dev nlohmann-json3-dev libssl-dev libgrpc++-dev libprotobuf-dev protobuf-compiler \
                 protobuf-compiler-grpc
TEST_PACKAGES  = libgtest-dev libgmock-dev junit5 etcd-server etcd-client gcovr strace openssl locales \
                 python3 git clang-format iproute2 util-linux mount e2fsprogs bsdutils pkg-config systemd zsh fish \
                 valgrind
LINT_PACKAGES  = clang-format clang-tidy cppcheck
FUZZ_PACKAGES  = clang clang-14 libclang-rt-14-dev
BENCH_PACKAGES = libxerial-sqlite-jdbc-java libxerial-sqlite-jdbc-jni libh2-java libdb5.3-java libdb5.3-java-jni \
                 etcd-server etcd-client

PREFIX ?= /usr/local
JOBS   ?= $(shell nproc)
# Tests wait more than they compute.
TEST_JOBS ?= $(shell expr $(JOBS) + 1)

# $(call require,packages): installs those that are missing, or says which they are.
define require
@missing=""; for package in $(1); do \
  dpkg-query -W -f='$${Status}' $$package 2>/dev/null | grep -q 'ok installed' || missing="$$missing $$package"; \
done; \
if [ -n "$$missing" ]; then \
  if [ "$$(id -u)" != 0 ]; then \
    echo "Missing Debian packages:$$missing" >&2; \
    echo "Install them as root: apt-get install --no-install-recommends$$missing" >&2; exit 1; \
  fi; \
  apt-get update -q && \
  RUNLEVEL=1 DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends $$missing; \
fi
endef

# $(call preset,name,options): configures and builds one preset.
define preset
cmake --preset $(1) $(2) --log-level=WARNING
cmake --build --preset $(1) -j $(JOBS)
endef

.PHONY: help packages-build packages-test packages-lint packages-fuzz packages-bench build demo demo-cluster test prove \
        coverage fuzz bench bench-check bench-renew format check-format lint install install-debug uninstall \
        maven-repository clean

help: ## list the targets
	@sed -nE 's/^([a-z-]+):.*## (.*)/  make \1	\2/p' Makefile | expand -t 22

packages-build:
	$(call require,$(BUILD_PACKAGES))
packages-test:
	$(call require,$(BUILD_PACKAGES) $(TEST_PACKAGES))
packages-lint:
	$(call require,$(BUILD_PACKAGES) $(TEST_PACKAGES) $(LINT_PACKAGES))
packages-fuzz:
	$(call require,$(BUILD_PACKAGES) $(TEST_PACKAGES) $(FUZZ_PACKAGES))
packages-bench:
	$(call require,$(BUILD_PACKAGES) $(TEST_PACKAGES) $(BENCH_PACKAGES))

build: packages-build ## build library, jar and command into build/release
	$(call preset,release,-DTKV_TESTS=OFF)

test: packages-test check-format ## everything that has to pass: format, tests, coverage of the bridge, sanitizers
	$(call preset,release,-DTKV_TESTS=ON)
	ctest --preset release -j $(TEST_JOBS)
	$(call preset,coverage)
	ctest --preset coverage -j $(TEST_JOBS)
	tests/bridge/coverage.sh build/coverage
	$(call preset,asan)
	ctest --preset asan -j $(TEST_JOBS)
	$(call preset,tsan)
	ctest --preset tsan -j $(TEST_JOBS)

# The trials mostly wait: for the disk, or for a cluster whose members are killed. So several of them run at once. The
# static analysis and the fuzzers run beside them, in the processor time that they leave. Whatever fails, the rest is
# run, and the table shows all of it.
prove: packages-test packages-lint packages-fuzz ## long runs, with a table at the end: static analysis, fuzzers, trials
	$(call preset,release,-DTKV_TESTS=ON)
	@rm -f build/release/prove.xml build/fuzz/fuzz.xml; status=0; analysis=passed; \
	ctest --preset prove -j $(TEST_JOBS) >build/release/prove.log 2>&1 & trials=$$!; \
	trap 'kill $$trials; exit 1' INT TERM; \
	nice $(MAKE) --no-print-directory lint || { status=1; analysis=FAILED; }; \
	nice $(MAKE) --no-print-directory fuzz || status=1; \
	wait $$trials || status=1; cat build/release/prove.log; \
	tests/build/prove_table.py build/release/prove.xml build/fuzz/fuzz.xml || status=1; \
	echo "static analysis: $$analysis; commit $$(git describe --always --dirty), $$(date -u +%F)"; exit $$status

demo: packages-build ## show the main job on an embedded registry: two JVMs, the command, and two users
	$(call preset,release,-DTKV_TESTS=OFF)
	@cmake --build --preset release --target demo

demo-cluster: packages-build ## the same on an etcd cluster of three members, whose leader is killed in the middle
	$(call require,etcd-server etcd-client)
	$(call preset,release,-DTKV_TESTS=OFF)
	@cmake --build --preset release --target demo-cluster

coverage: packages-test ## line and branch coverage of the bridge
	$(call preset,coverage)
	tests/bridge/coverage.sh build/coverage

fuzz: packages-fuzz ## run each fuzzer for a bounded number of inputs
	$(call preset,fuzz)
	ctest --preset fuzz -L fuzz

bench: packages-bench ## measure beside the peers (half an hour)
	$(call preset,release,-DTKV_BENCH=ON)
	bench/run --instructions
	bench/run-etcd --forks 2
	@echo "Fill docs/performance.md with these figures: bench/report"

# Builds what bench/check counts.
define build-counted-paths
cmake --preset release -DTKV_TESTS=ON --log-level=WARNING
cmake --build --preset release -j $(JOBS) --target tkv_bench_paths
endef

bench-check: packages-test ## compare the instructions of the main paths with the committed figures
	$(build-counted-paths)
	bench/check

bench-renew: packages-test ## count them anew and write the figures
	$(build-counted-paths)
	bench/check --renew

format: packages-lint ## format all C and C++
	git ls-files '*.h' '*.c' '*.cpp' | xargs tests/build/braces.py --fix
	git ls-files '*.h' '*.c' '*.cpp' | xargs clang-format -i

check-format: packages-test
	git ls-files '*.h' '*.c' '*.cpp' | xargs -P $(JOBS) -n 50 clang-format --dry-run -Werror
	git ls-files '*.h' '*.c' '*.cpp' | xargs tests/build/braces.py

lint: packages-lint check-format ## check the format, and the C++ with clang-tidy and cppcheck
	cppcheck --quiet --std=c++20 --enable=unusedFunction --suppressions-list=.cppcheck-suppressions \
	  --error-exitcode=1 -I platform -I platform/if -I framework/tkv/if framework platform tools
	$(call preset,release,-DTKV_TESTS=ON)
	git ls-files 'framework/*.cpp' 'platform/*.cpp' 'tools/*.cpp' | xargs -P $(JOBS) -n 4 clang-tidy --quiet -p build/release \
	  --extra-arg=-Wno-ignored-optimization-argument

maven-repository: packages-build ## build a local Maven repository with the jar, its sources and its Javadoc
	$(call preset,release,-DTKV_TESTS=OFF)
	@cmake --build --preset release --target maven-repository
	@echo "The repository is $(CURDIR)/build/release/maven-repository; the artifact is velmar.qen:tkv"

install: ## install what `make build` has built, below PREFIX (/usr/local)
	@[ -e build/release/manuals/tkv.1 ] || { echo "There is nothing to install: run make build first" >&2; exit 1; }
	cmake --install build/release --strip --prefix "$(PREFIX)"
	@echo "Programs linked through pkg-config or CMake find libprtkv.so. For others, run: ldconfig $(PREFIX)/lib"

install-debug: install ## the same, with debug information beside it
	cmake --install build/release --component debug --prefix "$(PREFIX)"

uninstall: ## remove what the last `make install` installed
	cmake -DBUILD=build/release -P cmake/TkvUninstall.cmake

clean: ## remove everything that was built
	rm -rf build
