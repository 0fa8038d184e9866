# Two commands do everything on a fresh Debian machine: `make demo` and `make test`. Both install what is missing.

BUILD_PACKAGES = cmake g++ ninja-build openjdk-17-jdk-headless liblmdb-dev libxxhash-dev libinih-dev \
                 libcli11-dev nlohmann-json3-dev libgrpc++-dev libprotobuf-dev protobuf-compiler \
                 protobuf-compiler-grpc pkg-config
TEST_PACKAGES  = libgtest-dev libgmock-dev junit5 etcd-server etcd-client gcovr strace openssl locales \
                 python3 iproute2 e2fsprogs
LINT_PACKAGES  = clang-format clang-tidy

PREFIX ?= /usr/local
JOBS   ?= $(shell nproc)
# The compiler that the package list names, also where another JDK is the machine's default.
JDK    := $(firstword $(wildcard /usr/lib/jvm/java-17-openjdk-*))
export JAVA_HOME ?= $(if $(JDK),$(JDK),$(patsubst %/bin/javac,%,$(realpath $(shell command -v javac))))

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

.PHONY: help build-packages test-packages lint-packages build demo test bench coverage format lint install clean

help: ## list the targets
	@grep -hE '^[a-z-]+:.*## ' $(MAKEFILE_LIST) | sed -E 's/^([a-z-]+):.*## (.*)/  make \1|\2/' | column -t -s '|'

build-packages:
	$(call require,$(BUILD_PACKAGES))

test-packages: build-packages
	$(call require,$(TEST_PACKAGES))

lint-packages: test-packages
	$(call require,$(LINT_PACKAGES))

clean: ## remove everything that was built
	rm -rf build
