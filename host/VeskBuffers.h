// The memory behind VeskObject::bufferData.
//
// A node fills a buffer, points a Packet at it and sends the Packet by value
// to any number of nodes in other threads; nobody hands the buffer back. So
// buffers are counted blocks: the producing node's pool keeps its most recent
// blocks alive, every delivery in flight holds the block of its Packet, and
// a sink that queues Packets with bufferPacketA pins them. A block whose last
// hold goes away returns to a free list of its size class.
#pragma once

#include <QString>
#include <cstddef>
#include <mutex>

namespace vhost {

struct Block;

// One hold on a block; copies are further holds.
class BlockRef {
public:
    BlockRef() = default;
    BlockRef(const BlockRef& other);
    BlockRef(BlockRef&& other) noexcept : b(other.b) { other.b = nullptr; }
    BlockRef& operator=(BlockRef other) noexcept
    {
        std::swap(b, other.b);
        return *this;
    }
    ~BlockRef();

    // A hold on the live block whose payload (headroom included) contains
    // `p`, or an empty ref when `p` is not pool memory.
    static BlockRef find(const void* p);

    explicit operator bool() const { return b != nullptr; }
    Block* get() const { return b; }
    // Payload range of the block: [begin, end).
    const char* begin() const;
    const char* end() const;

private:
    friend class NodePool;
    explicit BlockRef(Block* adopted) : b(adopted) {}
    Block* b = nullptr;
};

class NodePool {
public:
    // How many of a node's latest buffers stay alive without any other hold.
    // A node usually sends what it filled at once, so a window this size
    // covers a source that fills a few buffers ahead.
    static constexpr int kWindow = 64;
    static constexpr int kMaxLen = 64 << 20;
    static constexpr int kMaxHeadroom = 1 << 20;

    char* take(const char* src, int len, int headroom, const QString& owner);
    // A hold on the block among this pool's recent ones that contains `p`,
    // or an empty ref; newest first, so what was just filled is found at once.
    BlockRef find(const void* p);
    void clear();

private:
    std::mutex mutex;
    BlockRef recent[kWindow];  // a ring; `next` is the oldest
    int next = 0;
};

// Blocks currently held by anyone; for tests and diagnostics.
size_t liveBlocks();

}  // namespace vhost
