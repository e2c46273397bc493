# The set-up commands: `make run`, `make app` and `make test`. Each installs what is missing first.
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
# The builds below are make too; their "Entering directory" lines say nothing worth reading.
MAKEFLAGS += --no-print-directory

.PHONY: deps run test bench app package format clean

deps:
	@scripts/install-deps

build/release/CMakeCache.txt: | deps
	@cmake --preset release >/dev/null

build/debug/CMakeCache.txt: | deps
	@cmake --preset debug >/dev/null

build/bench/CMakeCache.txt: | deps
	@cmake --preset bench >/dev/null

# Sweeps your home folder: measures what comes back by itself; reads only, changes nothing.
run: deps build/release/CMakeCache.txt
	@scripts/build-quietly sparrowdeck cmake --build --preset release -j $(JOBS) --target sparrowdeck
	@build/release/src/sparrowdeck sweep

# Builds the desktop app (Qt 6) and opens it on your home folder. Nothing moves until you choose.
app: deps build/release/CMakeCache.txt
	@scripts/build-quietly sparrowdeck-app \
		cmake --build --preset release -j $(JOBS) --target sparrowdeck-app
	@build/release/src/app/sparrowdeck-app

# Builds the Debian package of both programs into build/release/package; install it with
# `sudo apt install ./build/release/package/sparrowdeck_*.deb` (or `cmake --install build/release`).
package: deps build/release/CMakeCache.txt
	@scripts/build-quietly "sparrowdeck and sparrowdeck-app" \
		cmake --build --preset release -j $(JOBS) --target sparrowdeck sparrowdeck-app manpages
	@cd build/release && cpack --config CPackConfig.cmake >/dev/null
	@ls build/release/package/*.deb

test: deps build/debug/CMakeCache.txt
	@cmake --build --preset debug -j $(JOBS)
	@ctest --preset debug -j $(JOBS)

bench: deps build/bench/CMakeCache.txt
	@cmake --build --preset bench -j $(JOBS)
	@bench/run-all

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf build
