# The two commands a newcomer runs: `make test` and `make demo`.
ARCHS := i386 x86_64
JOBS ?= $(shell nproc)
# Package lists, each beside the build files that need it. Configuring the
# tree reaches the tests, the renderer and the Python module, so every build
# needs those lists.
CONFIGURE_PACKAGES := packages.txt tests/packages.txt apps/render/packages.txt \
  python/packages.txt

.PHONY: test build deps demo bench python clean $(ARCHS:%=build-%) $(ARCHS:%=test-%)

# Both targets are built before either is tested: the install test puts both
# into one prefix.
test: deps $(ARCHS:%=build-%) $(ARCHS:%=test-%)

deps:
	@sh scripts/deps.sh $(CONFIGURE_PACKAGES)

build: deps $(ARCHS:%=build-%)

# Static pattern rules: make skips implicit rules for phony targets, so a
# plain build-% rule would never run.
$(ARCHS:%=build-%): build-%:
	cmake --preset $* >/dev/null
	cmake --build build/$* -j $(JOBS)

$(ARCHS:%=test-%): test-%: build-%
	ctest --test-dir build/$* --output-on-failure -j $(JOBS)

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
