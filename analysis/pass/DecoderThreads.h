#pragma once

// How many threads a pass's decoder gets: the one rule behind the window's jobs, the
// tool's passes and a pass left to choose for itself. Callers differ only in how many
// passes they count as running at once and in how passes side by side share the cores.
namespace DecoderThreads {

enum class Sharing {
    // The cores are divided among the passes: the tool's passes, which it starts together.
    SplitCores,
    // Each decodes on one thread: the window's jobs, where a pass beside another keeps a
    // core of its own for its count and its background.
    OneEach,
};

// The decoder threads of a pass while `passesAtOnce` passes (itself included) run on
// `cores` cores. A pass alone decodes on every core; never fewer than one thread.
// Thread-safe.
int forPass(int passesAtOnce, int cores, Sharing sharing);

} // namespace DecoderThreads
