# The two set-up commands of the README, and a few helpers for developers.
.PHONY: run test bootstrap build sanitizers tsan bench fuzz clean

BUILD := build/dev
DECK := $(BUILD)/tools/qm-deck/qm-deck
SAMPLE := build/sample-drive

APP := $(BUILD)/app/shell/quillmate-flasher
SHOTS := build/shots

# Opens the window on a sample drive; without a display, renders the tabs to PNG files instead.
run: build
	$(DECK) make $(SAMPLE) --seed 7 --force --docs 4
	@if [ -n "$$DISPLAY$$WAYLAND_DISPLAY" ]; then \
	  $(APP) --drive $(SAMPLE); \
	else \
	  echo "No display: rendering the tabs off screen, and backing the sample drive up, instead."; \
	  $(APP) --shot $(SHOTS) --drive $(SAMPLE) && echo "Open the images in $(SHOTS)/"; \
	  $(APP) --backup-run $(SAMPLE) build/sample-backup; \
	fi

# Everything: the suite on the optimised build, again under ASan + UBSan, the application and
# threading tests under ThreadSanitizer, then the fuzz smoke runs.
test: build
	ctest --preset dev -j2
	cmake --preset sanitizers >/dev/null
	cmake --build --preset sanitizers
	ctest --preset sanitizers -j2
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan
	ctest --preset tsan -j2
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	ctest --preset fuzz

bootstrap:
	scripts/bootstrap

build: bootstrap
	cmake --preset dev >/dev/null
	cmake --build --preset dev

sanitizers: bootstrap
	cmake --preset sanitizers >/dev/null
	cmake --build --preset sanitizers
	ctest --preset sanitizers -j2

tsan: bootstrap
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan
	ctest --preset tsan -j2

bench: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release
	scripts/run-benchmarks build/release

clean:
	rm -rf build
