# Entry points for people and CI. Each target installs what it needs first.
JOBS ?= $(shell nproc)
BUILD ?= build
CMAKE_GEN = -G Ninja

.PHONY: all deps run demo test bench format fuzz screenshots package windows clean

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

screenshots: all windows
	@bash scripts/screenshots.sh $(BUILD)/release $(BUILD)/windows/MeridKestalUtility

package: deps
	@bash scripts/package.sh

# The window for Windows: the zip and the installer in $(BUILD)/windows.
windows: deps
	@bash scripts/windows.sh $(BUILD)/mingw-release $(BUILD)/windows -DMERID_BUILD_TESTS=OFF

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i --style=file

clean:
	rm -rf $(BUILD)
