# The two commands a newcomer needs: `make run` and `make test`.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
PREFIX ?= $(HOME)/.local
JOBS ?= $(shell nproc)

.PHONY: all setup configure build run test bench mutants install format clean

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
	@cmake --install $(BUILD_DIR) --prefix $(PREFIX)
	@if command -v update-mime-database >/dev/null; then update-mime-database $(PREFIX)/share/mime; fi
	@if command -v update-desktop-database >/dev/null; then update-desktop-database $(PREFIX)/share/applications; fi
	@echo "Installed to $(PREFIX): $(PREFIX)/bin/vorlin, its desktop entry and the .vorlin file type."

bench: build
	@scripts/bench $(BUILD_DIR)

mutants: build
	@scripts/mutants $(BUILD_DIR)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
