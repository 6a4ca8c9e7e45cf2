/* Faults that leave the allocator of glibc with its lock held by the thread at fault, for good. C and C++.
 * Addresses are numbers here, so that the compiler does not see what is wrong. */
#ifndef HEAP_FAULTS_H
#define HEAP_FAULTS_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

enum {
    DISTANCE = 2016,                   /* of neighbours in memory */
    LARGE = DISTANCE - sizeof(size_t), /* more than a thread keeps for itself: served under the lock, and merged when freed */
};

static inline uintptr_t allocate(size_t size)
{
    void* memory = malloc(size);
    uintptr_t block;
    memcpy(&block, &memory, sizeof block);
    return block;
}

static inline void release(uintptr_t block)
{
    void* memory;
    memcpy(&memory, &block, sizeof memory);
    free(memory);
}

static inline void write_word(uintptr_t address, size_t value)
{
    void* memory;
    memcpy(&memory, &address, sizeof memory);
    memcpy(memory, &value, sizeof value);
}

/* A block whose neighbours in memory are in use, so that it stays as it is when it is freed. */
static inline uintptr_t enclosed_block(void)
{
    uintptr_t before = allocate(LARGE), block = allocate(LARGE), behind = allocate(LARGE);
    while (block - before != DISTANCE || behind - block != DISTANCE) {
        before = block;
        block = behind;
        behind = allocate(LARGE);
    }
    return block;
}

/* The allocator notices, and aborts. */
static inline void free_twice(void)
{
    const uintptr_t block = enclosed_block();
    release(block);
    release(block);
}

/* Likewise. The size stands before the block; its last bit says that the neighbour is in use. */
static inline void damage_size(void)
{
    const uintptr_t block = enclosed_block();
    const size_t beyond_the_heap = 1U << 30;
    write_word(block - sizeof(size_t), beyond_the_heap | 1);
    release(block);
}

/* The allocator follows a list that leads nowhere: SIGSEGV. The block claims that the one before it is free, to be merged with, and that
 * one's content to be the list's links. All is written while both are in use, so that no other thread comes in between. */
static inline void fault_in_free(void)
{
    const uintptr_t block = enclosed_block();
    write_word(block - DISTANCE, sizeof(void*));
    write_word(block - DISTANCE + sizeof(void*), sizeof(void*));
    write_word(block - 2 * sizeof(size_t), DISTANCE);
    write_word(block - sizeof(size_t), DISTANCE); /* without the bit that says that the neighbour is in use */
    release(block);
}

#endif
