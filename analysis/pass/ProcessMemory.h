#pragma once

namespace ProcessMemory {

// Makes the C library hand large freed blocks (decoded pictures, colour frames, counting
// buffers) back to the system at once. By default it raises its threshold for doing so each
// time such a block is freed and keeps later ones in its heaps, so a process that analyses
// one video after another would keep the peak of every one. Called once by main() before
// any other thread starts; a no-op where the C library offers no such setting.
void returnLargeBlocksAtOnce();

} // namespace ProcessMemory
