# Only for a build against a host's tree, after ./configure --bro-dist=DIR. Without a host, build
# with CMake: cmake -S . -B build && cmake --build build.

BUILD_DIR = build-host

all install clean: configured
	$(MAKE) -C $(BUILD_DIR) $@

configured:
	@test -f $(BUILD_DIR)/Makefile || \
	  { echo "$(BUILD_DIR) is not configured: run ./configure --bro-dist=DIR first" >&2; exit 1; }

.PHONY: all install clean configured
