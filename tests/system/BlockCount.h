// Counts the memory blocks of the whole process, for programs that link BlockCount.cpp.
#ifndef BLOCK_COUNT_H
#define BLOCK_COUNT_H

// Blocks from operator new that are not yet deleted, the library's included. Blocks, not bytes: what
// only grows, as the scripted driver's memory of its requests does, stays one block. Always 0 with
// sanitizers, which watch the blocks themselves.
long blockCount();

#endif
