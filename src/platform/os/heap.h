// How the process's heap keeps what was freed.
#pragma once

namespace os {

// For a program that runs for months while decoders of all sizes come and go: large blocks live
// outside the heap and go back to the system when they are freed. Otherwise the C library raises
// the size from which it does so with every large block that is freed, pictures end up between
// small things that stay, and the process grows for hours. Once, before the first thread; blocks of
// 256 KB and more then cost a call of the system each, so what needs many of them pools them.
void KeepLargeBlocksOutOfHeap();

}  // namespace os
