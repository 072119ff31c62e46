# The README's two commands. `make run` installs what is missing, builds and starts Quillon; `make test`
# installs what is missing, builds with warnings as errors and runs every test, then runs them again in the
# AddressSanitizer and UndefinedBehaviorSanitizer build. Everything the machine lacks comes from
# debian-packages.txt.
BUILD_DIR ?= build
SANITIZE_DIR ?= build-sanitize
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all run test packages build build-sanitize test-plain test-sanitize bench format clean editor-property

all: build

packages:
	@bash tools/install-packages.sh

$(BUILD_DIR)/build.ninja:
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_WERROR=ON $(CMAKE_FLAGS)

build: packages $(BUILD_DIR)/build.ninja
	cmake --build $(BUILD_DIR) -j $(JOBS)

$(SANITIZE_DIR)/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B $(SANITIZE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUILLON_WERROR=ON \
	    -DQUILLON_SANITIZE=ON -DQUILLON_BUILD_BENCHMARKS=OFF $(CMAKE_FLAGS)

build-sanitize: packages $(SANITIZE_DIR)/build.ninja
	cmake --build $(SANITIZE_DIR) -j $(JOBS)

run: build
	./$(BUILD_DIR)/src/cli/quillon --help

test-plain: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

test-sanitize: build-sanitize
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	    ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

# The sanitizer run comes last so that the output ends with ctest's summary line.
test: test-plain test-sanitize

# The editor's no-keystroke-lost property at length (`make test` runs a few dozen sequences).
editor-property: build
	QT_QPA_PLATFORM=offscreen QUILLON_EDITOR_PROPERTY_CASES=1000 \
	    $(BUILD_DIR)/src/app/quillon_app_tests --gtest_filter='NBDocumentEditorProperty.*'

bench: build
	@for program in $(BUILD_DIR)/benchmarks/*/quillon_*_benchmark; do echo "== $$program"; $$program; done

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR)
