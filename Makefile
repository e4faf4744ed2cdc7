# The two commands of the README, plus the benchmark and the long fuzz run. Each installs
# what it is missing first.
BUILD ?= build
JOBS  ?= $(shell nproc)
FUZZ_SECONDS ?= 180

.PHONY: demo test bench fuzz host armhf asan tsan package release docs format clean

demo:
	scripts/deps.sh host
	cmake -S . -B $(BUILD)/demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF
	cmake --build $(BUILD)/demo -j $(JOBS)
	scripts/demo.sh $(BUILD)/demo

test:
	scripts/deps.sh host armhf fuzz docs
	scripts/test.sh all

host armhf asan tsan:
	scripts/deps.sh host armhf
	scripts/test.sh $@

# Debian packages for amd64 and armhf and the device test bundle, in $(BUILD)/packages.
# `make release` builds them and checks them as `make test` does.
package release:
	scripts/deps.sh host armhf
	BUILD=$(BUILD) JOBS=$(JOBS) scripts/test.sh $@

# The HTML API reference, in $(BUILD)/docs/html; an undocumented public name fails the build.
docs:
	scripts/deps.sh docs
	scripts/docs.sh --strict $(BUILD)/docs

bench:
	scripts/deps.sh host bench
	cmake -S . -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DOXA_BUILD_BENCH=ON
	cmake --build $(BUILD)/bench -j $(JOBS)
	$(BUILD)/bench/bench/oxa_bench

# Every libFuzzer target for FUZZ_SECONDS seconds under AddressSanitizer and UBSan.
fuzz:
	scripts/deps.sh host fuzz
	JOBS=$(JOBS) scripts/fuzz.sh $(FUZZ_SECONDS)

format:
	git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
