# Front door for people and CI. Everything builds under build*/.
JOBS ?= 2
CMAKE_FLAGS ?=
TSAN_TESTS ?= .

.PHONY: all deps build test asan tsan thread-safety bench fuzz clean format format-check run

all: build

deps:
	@scripts/ensure-deps.sh

build/CMakeCache.txt: | deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps build/CMakeCache.txt
	cmake --build build -j$(JOBS)

test: build
	cd build && ctest --output-on-failure -j$(JOBS) --timeout 300

asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTOVEL_SANITIZE=address $(CMAKE_FLAGS)
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j$(JOBS) --timeout 600

tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DTOVEL_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 suppressions=$(CURDIR)/tests/tsan.supp" ctest --output-on-failure -j$(JOBS) --timeout 600 -R $(TSAN_TESTS)

# Clang's thread-safety analysis (-Wthread-safety -Werror) over every file but
# the tests (which are not analysed); the analysis needs no code generation, so
# each file is only parsed.
thread-safety: deps
	CXX=clang++ cmake -S . -B build-thread-safety -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS) >/dev/null
	scripts/syntax-check.py build-thread-safety $(JOBS) tests

# Telnet and HTTP are mapped to 2323 and 8080, so no privileges are needed.
RUN_FLAGS ?= --port-map 23=2323 --port-map 80=8080

run: deps build/CMakeCache.txt
	cmake --build build -j$(JOBS) --target tovel tovelctl tovelsim
	build/tovel --root ./unit $(RUN_FLAGS)

bench: build
	@for b in build/tovel_bench_*; do [ -x "$$b" ] && echo "== $$b" && "$$b"; done; true

fuzz: deps
	CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVEL_FUZZ=ON $(CMAKE_FLAGS)
	cmake --build build-fuzz -j$(JOBS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

format-check: deps
	git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

clean:
	rm -rf build build-asan build-tsan build-fuzz build-thread-safety

# The soak: a unit with four simulated boards for MINUTES under load, board
# churn and hostile clients; prints growth per hour, requests, wrong replies
# and lost log lines (bench/soak_main.cpp).
.PHONY: soak fuzz-run
MINUTES ?= 10
soak: deps build/CMakeCache.txt
	cmake --build build -j$(JOBS) --target tovel_soak
	build/tovel_soak $(MINUTES)

# Every fuzz target for MINUTES minutes each, from the seed corpus in
# fuzz/corpus/ (findings go to build-fuzz/fuzz-findings/).
FUZZ_TARGETS ?= coff_reader_fuzz framer_fuzz
fuzz-run: deps
	CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVEL_FUZZ=ON $(CMAKE_FLAGS)
	cmake --build build-fuzz -j$(JOBS) --target $(FUZZ_TARGETS)
	fuzz/run.sh build-fuzz $(MINUTES) $(FUZZ_TARGETS)
