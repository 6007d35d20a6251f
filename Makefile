# The two commands a newcomer needs: `make run` and `make test`.
# SANITIZE=1: AddressSanitizer and UndefinedBehaviorSanitizer, in a build folder of their own.
ifeq ($(SANITIZE),1)
BUILD_DIR ?= build-sanitize
CMAKE_OPTIONS = -DVORLIN_SANITIZE=ON -DVORLIN_BUILD_BENCH=OFF
# Qt and the system libraries keep some memory to the end on purpose: leaks are not checked.
TEST_ENV = ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
endif
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
PREFIX ?= $(HOME)/.local
JOBS ?= $(shell nproc)

.PHONY: all setup configure build run test bench mutants mutant-patches install release format clean

all: build

setup:
	@scripts/setup

$(BUILD_DIR)/build.ninja:
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_OPTIONS)

configure: setup $(BUILD_DIR)/build.ninja

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	@scripts/run $(BUILD_DIR)

test: build
	@cd $(BUILD_DIR) && $(TEST_ENV) ctest --output-on-failure -j $(JOBS)
	@scripts/test-share

install: build
	@scripts/install $(BUILD_DIR) $(PREFIX)

# A signed release archive in dist/: make release KEY=publisher-private-key.pem
release: build
	@if [ -z "$(KEY)" ]; then echo "make release KEY=<the publisher's Ed25519 private key (PEM)>" >&2; exit 2; fi
	@scripts/make-release $(BUILD_DIR) $(KEY) dist

bench: build
	@scripts/bench $(BUILD_DIR)

# Generated mutants, the whole suite against each: LIBS=audio,cue PER_LIB=20 SEED=1
mutants: build
	@scripts/mutants $(BUILD_DIR) $(if $(LIBS),--libs $(LIBS)) $(if $(PER_LIB),--per-lib $(PER_LIB)) $(if $(SEED),--seed $(SEED))

# The hand-written patches of tests/mutants/: bugs once found, kept as regression checks.
mutant-patches: build
	@scripts/mutant-patches $(BUILD_DIR)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
