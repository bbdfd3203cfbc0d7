# Quillbase: `make run` starts a demo installation, `make test` runs the suite.
BUILD    ?= build
JOBS     ?= $(shell nproc)
PACKAGES := cmake ninja-build g++ make pkg-config qt6-base-dev qt6-base-dev-tools \
            libqt6sql6-sqlite libsqlite3-dev qt6-serialport-dev qt6-qpa-plugins sqlite3 \
            clang libclang-rt-14-dev python3 fonts-dejavu-core \
            libsystemd-dev dpkg-dev systemd lintian bash-completion \
            qt6-svg-dev xvfb xauth trayer openbox xdotool x11-utils \
            libqt6sql6-psql postgresql postgresql-common postgresql-client
SUDO     := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps build test run fuzz fuzz-smoke bench clean install package tsan
FUZZ_SECONDS ?= 10
# The server under fuzzing changes its working folder, so every path is absolute.
FUZZ_DIR = $(abspath $(BUILD)-fuzz)

all: build

# Installs only the Debian packages that are not there yet.
deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi

# ccache, where the machine has it, makes rebuilds of a fresh clone cheap.
CCACHE := $(shell command -v ccache 2>/dev/null)

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja $(if $(CCACHE),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

# The short fuzzing run goes first so CTest's summary closes the output.
test: build
	$(MAKE) --no-print-directory fuzz-smoke FUZZ_SECONDS=5
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

# PREFIX=/usr/local by default; sudo make install when it is not yours.
install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

# In $(BUILD)/: quillbase_<version>-1_<arch>.deb (server, quillbase-ctl, unit),
# mp104c-emulator_<version>-1_<arch>.deb, and their -dbgsym .ddeb packages.
# Only what the packages hold is built (not the tests).
PACKAGED := quillbase quillbase-ctl mp104c-emulator quill_packaging_files
package: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS) --target $(PACKAGED)
	cd $(BUILD) && cpack -G DEB

run: build
	tools/demo.sh $(BUILD)

bench: build
	@for b in $(BUILD)/bin/bench-*; do echo "== $$b"; $$b; done

fuzz: deps
	cmake -S . -B $(BUILD)-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DQUILL_FUZZ=ON -DQUILL_TESTS=OFF
	cmake --build $(BUILD)-fuzz -j $(JOBS) --target fuzz-requests

# A short fuzzing run (make fuzz-smoke FUZZ_SECONDS=600 for a longer one).
fuzz-smoke: fuzz
	mkdir -p $(FUZZ_DIR)/corpus
	cp -n tests/fuzz/seeds/* $(FUZZ_DIR)/corpus/ 2>/dev/null || true
	@$(FUZZ_DIR)/bin/fuzz-requests -max_total_time=$(FUZZ_SECONDS) -max_len=4096 -timeout=10 -print_final_stats=1 \
	  -artifact_prefix=$(FUZZ_DIR)/ $(FUZZ_DIR)/corpus > $(FUZZ_DIR)/fuzz.log 2>&1; rc=$$?; \
	  tail -n 12 $(FUZZ_DIR)/fuzz.log; exit $$rc

# ThreadSanitizer over the programs whose device operations run on a worker
# thread, in $(BUILD)-tsan; fails on any report (each in $(BUILD)-tsan/reports/).
# Not part of make test: it takes minutes. tools/tsan.supp says what Qt and
# glibc, not being instrumented, make it report.
TSAN_TESTS := shell_tst_operator shell_tst_ctl gui_tst_mainwindow printers_tst_printers
TSAN_FLAGS := -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS=-fsanitize=thread \
              -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread
TSAN_DIR = $(abspath $(BUILD)-tsan)

tsan: deps
	cmake -S . -B $(TSAN_DIR) -G Ninja $(if $(CCACHE),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache) $(TSAN_FLAGS)
	cmake --build $(TSAN_DIR) -j $(JOBS) --target $(TSAN_TESTS) mp104c-emulator quillbase quillbase-ctl
	rm -rf $(TSAN_DIR)/reports && mkdir -p $(TSAN_DIR)/reports
	@# The tests start emulators and servers from a threaded process: fork is fine, they exec at once.
	@for t in $(TSAN_TESTS); do \
	  (cd $(TSAN_DIR)/tests && QT_QPA_PLATFORM=offscreen QT_LOGGING_RULES='qt.*=false' \
	   TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 die_after_fork=0 suppressions=$(CURDIR)/tools/tsan.supp log_path=$(TSAN_DIR)/reports/$$t" \
	   ./$$t -silent) || exit 1; \
	done; \
	if ls $(TSAN_DIR)/reports/* >/dev/null 2>&1; then echo "ThreadSanitizer reports:"; ls $(TSAN_DIR)/reports; exit 1; fi

clean:
	rm -rf $(BUILD) $(BUILD)-fuzz $(BUILD)-tsan $(BUILD)-mutants

# Mutation check (not part of make test): each mutant in tests/mutants.txt
# applied alone to a copy of the tree in $(BUILD)-mutants, rebuilt and run
# against the suite; prints the survivors and the score. MUTANTS=id,id runs some.
.PHONY: mutants
mutants: deps
	tools/mutants.py --build $(abspath $(BUILD)-mutants) --jobs $(JOBS) $(if $(MUTANTS),--only $(MUTANTS))
