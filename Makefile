# Entry points for people and CI. Each target installs what it needs first.
JOBS ?= $(shell nproc)
BUILD ?= build
CMAKE_GEN = -G Ninja

.PHONY: all deps run demo test bench format fuzz screenshots package clean

all: deps
	cmake -S . -B $(BUILD)/release $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMERID_BUILD_TESTS=OFF
	cmake --build $(BUILD)/release -j $(JOBS)

deps:
	@bash scripts/install-deps.sh

run: all
	@bash scripts/run.sh $(BUILD)/release

demo: all
	@bash scripts/demo.sh $(BUILD)/release

test: deps
	@bash scripts/test.sh

bench: deps
	@bash scripts/bench.sh

fuzz: deps
	@bash scripts/fuzz.sh

screenshots: all
	@bash scripts/screenshots.sh $(BUILD)/release

package: deps
	@bash scripts/package.sh

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i --style=file

clean:
	rm -rf $(BUILD)
