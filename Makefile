# The two set-up commands of the README, and a few helpers for developers.
.PHONY: run test bootstrap build sanitizers bench fuzz clean

BUILD := build/dev
DECK := $(BUILD)/tools/qm-deck/qm-deck
SAMPLE := build/sample-drive

run: build
	$(DECK) make $(SAMPLE) --seed 7 --force
	$(DECK) show $(SAMPLE)

test: build
	ctest --preset dev -j2
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

bench: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release
	scripts/run-benchmarks build/release

clean:
	rm -rf build
