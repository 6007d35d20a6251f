# The two commands a newcomer needs: `make run` and `make test`.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
PREFIX ?= $(HOME)/.local
JOBS ?= $(shell nproc)

.PHONY: all setup configure build run test bench mutants install release format clean

all: build

setup:
	@scripts/setup

$(BUILD_DIR)/build.ninja:
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

configure: setup $(BUILD_DIR)/build.ninja

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	@scripts/run $(BUILD_DIR)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

install: build
	@scripts/install $(BUILD_DIR) $(PREFIX)

# A signed release archive in dist/: make release KEY=publisher-private-key.pem
release: build
	@if [ -z "$(KEY)" ]; then echo "make release KEY=<the publisher's Ed25519 private key (PEM)>" >&2; exit 2; fi
	@scripts/make-release $(BUILD_DIR) $(KEY) dist

bench: build
	@scripts/bench $(BUILD_DIR)

mutants: build
	@scripts/mutants $(BUILD_DIR)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
