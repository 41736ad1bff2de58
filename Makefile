# The two commands a newcomer runs: `make test` and `make demo`.
ARCHS := i386 x86_64
SANITIZED := $(ARCHS:%=%-asan)
JOBS ?= $(shell nproc)
# Package lists, each beside the build files that need it. Configuring the
# tree reaches the tests, the renderer and the Python module, so every build
# needs those lists.
CONFIGURE_PACKAGES := packages.txt tests/packages.txt apps/render/packages.txt \
  python/packages.txt
SANITIZE_PACKAGES := cmake/sanitize/packages.txt
FUZZ_PACKAGES := apps/render/fuzz/packages.txt
TSAN_PACKAGES := cmake/tsan/packages.txt
# Where Debian 12's libomp-dev keeps the OpenMP runtime's TSan tool.
ARCHER := /usr/lib/llvm-14/lib/libarcher.so
# The renderer's small picture for the sanitizer and memcheck runs, and a
# small mesh for the slowest of them (the built-in scene's PSAH build takes
# minutes under valgrind and ThreadSanitizer).
SMALL_RENDER := --size 64x48 --bounces 2 --quiet
SMALL_MESH := --mesh apps/render/fuzz/seeds/cube.obj

PRESETS := $(ARCHS) $(SANITIZED)
.PHONY: test build deps demo bench python sanitize memcheck fuzz tsan clean \
  $(PRESETS:%=build-%) $(PRESETS:%=test-%)

# Both targets are built before either is tested: the install test puts both
# into one prefix.
test: deps $(ARCHS:%=build-%) $(ARCHS:%=test-%)

deps:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES)

build: deps $(ARCHS:%=build-%)

# Static pattern rules: make skips implicit rules for phony targets, so a
# plain build-% rule would never run.
$(PRESETS:%=build-%): build-%:
	cmake --preset $* >/dev/null
	cmake --build build/$* -j $(JOBS)

$(PRESETS:%=test-%): test-%: build-%
	ctest --test-dir build/$* --output-on-failure -j $(JOBS)

# The whole suite on both targets under AddressSanitizer and
# UndefinedBehaviorSanitizer, the renderer on a small picture under them,
# and the plain renderer under valgrind's memcheck.
sanitize:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) $(SANITIZE_PACKAGES)
	@$(MAKE) --no-print-directory $(SANITIZED:%=test-%)
	build/x86_64-asan/apps/render/kelr-render $(SMALL_RENDER) --out build/x86_64-asan/small.png
	@$(MAKE) --no-print-directory memcheck

memcheck:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) $(SANITIZE_PACKAGES)
	cmake --preset x86_64 >/dev/null
	cmake --build build/x86_64 -j $(JOBS) --target kelr-render
	valgrind --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
	  --suppressions=cmake/sanitize/valgrind.supp \
	  build/x86_64/apps/render/kelr-render $(SMALL_RENDER) $(SMALL_MESH) --threads 2 \
	    --out build/x86_64/small.png

# Builds the OBJ fuzz target; FUZZ_SECONDS=600 also runs it that long on the
# corpus in build/fuzz/corpus, seeded with sample files and the broken ones
# the tests keep. Findings land in the current folder as crash-* files.
FUZZ_SECONDS ?= 0
fuzz:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) $(FUZZ_PACKAGES)
	cmake --preset fuzz >/dev/null
	cmake --build build/fuzz -j $(JOBS) --target obj_fuzz
	@if [ "$(FUZZ_SECONDS)" -gt 0 ]; then mkdir -p build/fuzz/corpus && \
	  build/fuzz/apps/render/fuzz/obj_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=4096 \
	    -timeout=10 build/fuzz/corpus apps/render/fuzz/seeds tests/render/obj; \
	else echo "Built build/fuzz/apps/render/fuzz/obj_fuzz (FUZZ_SECONDS=600 runs it)"; fi

# The renderer under ThreadSanitizer: two render threads tracing one tree
# built by the OpenMP split search. Archer makes LLVM's OpenMP runtime
# visible to TSan; cmake/tsan/REPORTS.md lists what is still reported.
tsan:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) $(TSAN_PACKAGES)
	cmake --preset x86_64-tsan >/dev/null
	cmake --build build/x86_64-tsan -j $(JOBS) --target kelr-render
	OMP_TOOL_LIBRARIES=$(ARCHER) \
	  TSAN_OPTIONS="ignore_noninstrumented_modules=1 second_deadlock_stack=1" \
	  build/x86_64-tsan/apps/render/kelr-render $(SMALL_RENDER) $(SMALL_MESH) --threads 2 \
	    --out build/x86_64-tsan/small.png

bench:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) bench/packages.txt
	@$(MAKE) --no-print-directory build-x86_64
	@echo "Benchmark programs are in build/x86_64/bench/"

# Builds only the renderer (and the library it links), renders the built-in
# scene and says where the picture is.
demo:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES)
	@if [ -f apps/render/CMakeLists.txt ]; then \
	  cmake --preset x86_64 >/dev/null && \
	  cmake --build build/x86_64 -j $(JOBS) --target kelr-render && \
	  build/x86_64/apps/render/kelr-render --out out/demo.png && \
	  echo "The picture is in $(CURDIR)/out/demo.png"; \
	else echo "The renderer is not there yet."; fi

# Builds the Python module (x86_64 only) and says how to import it.
python:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES)
	@cmake --preset x86_64 >/dev/null
	cmake --build build/x86_64 -j $(JOBS) --target kelrt7_python
	@echo "Import it with: PYTHONPATH=build/x86_64/python \
	$$(sed -n 's/^Python3_EXECUTABLE:FILEPATH=//p' build/x86_64/CMakeCache.txt) -c 'import kelrt7'"

clean:
	rm -rf build

# Reference documentation: doxygen over the public headers and docs/*.md,
# written to build/docs/html. A warning (an undocumented name included) fails.
.PHONY: docs
docs:
	@sh scripts/deps.sh docs/packages.txt
	rm -rf build/docs
	doxygen docs/Doxyfile
	@echo "The reference is in $(CURDIR)/build/docs/html/index.html"

# Debian packages of both targets in build/packages (libkelrt7-5 and
# libkelrt7-dev for amd64 and i386, kelr-render for amd64), each checked by
# lintian: an error fails the target.
.PHONY: package
package:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES) cmake/packages.txt
	@$(MAKE) --no-print-directory build
	rm -rf build/packages
	for arch in $(ARCHS); do (cd build/$$arch && cpack -B $(CURDIR)/build/packages) || exit 1; done
	rm -rf build/packages/_CPack_Packages
	lintian --fail-on error build/packages/*.deb
	@echo "The packages are in $(CURDIR)/build/packages"
