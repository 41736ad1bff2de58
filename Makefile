# The two commands a newcomer runs: `make test` and `make demo`.
ARCHS := i386 x86_64
JOBS ?= $(shell nproc)

.PHONY: test build deps demo bench clean $(ARCHS:%=build-%) $(ARCHS:%=test-%)

test: deps $(ARCHS:%=test-%)

deps:
	@sh scripts/deps.sh test

build: deps $(ARCHS:%=build-%)

build-%:
	cmake --preset $* >/dev/null
	cmake --build build/$* -j $(JOBS)

test-%: build-%
	ctest --test-dir build/$* --output-on-failure -j $(JOBS)

bench: deps build-x86_64
	@echo "Benchmark programs are in build/x86_64/bench/"

demo:
	@sh scripts/deps.sh demo
	@if [ -f apps/render/CMakeLists.txt ]; then \
	  $(MAKE) --no-print-directory build-x86_64 && build/x86_64/apps/render/kelr-render --out out/demo.png; \
	else echo "The renderer is not there yet."; fi

clean:
	rm -rf build
