// The heap of S-expression objects. A credential file of a megabyte is some
// seventy thousand small atoms and lists, made together and released
// together; through malloc, freeing such a tree cost half of parsing it
// (glibc merges the freed blocks, and trims and faults the pages back in on
// the next parse). Here blocks of each size are kept on free lists of their
// own, per thread, and reused.
//
// Blocks are never given back to the system: the memory a process keeps is
// the most its objects ever needed at once. Built with AddressSanitizer, every
// block comes from the ordinary heap so that a use after release is reported.
#ifndef VELK2_SEXP_NODE_HEAP_H_
#define VELK2_SEXP_NODE_HEAP_H_

#include <cstddef>

namespace velk2::sexp_internal {

// AllocateNode returns |size| bytes aligned for any object of up to 8-byte
// alignment. Throws std::bad_alloc.
void* AllocateNode(size_t size);
// FreeNode takes back a block from AllocateNode (null is ignored), from any
// thread.
void FreeNode(void* block) noexcept;
// With pooling off, every later block comes from operator new itself (tests
// of allocation failures count and fail those); blocks made before are freed
// where they came from. On by default; set it while no other thread runs.
void SetNodePooling(bool enabled);
// The slabs taken from malloc since the process started (0 when every block
// comes from the ordinary heap).
size_t NodeSlabCount();

}  // namespace velk2::sexp_internal

#endif  // VELK2_SEXP_NODE_HEAP_H_
