#include "host/VeskBuffers.h"

#include <QDebug>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <vector>

namespace vhost {

namespace {

// The header sits in front of the headroom so that a Packet whose data was
// moved back into the headroom still lies inside its block.
constexpr size_t kHeaderBytes = 64;
constexpr size_t kMinClassBytes = 1024;
constexpr int kClasses = 18;  // 1 KiB .. 128 MiB
// Decoders and parsers may read a little past the end of a unit; they find
// zeros there instead of a neighbour's bytes.
constexpr size_t kTailPad = 64;
// Free blocks kept for reuse; beyond this they go back to the system.
constexpr size_t kSpareBytes = 64u << 20;
constexpr size_t kSparePerClass = 64;

size_t classBytes(int sizeClass)
{
    return kMinClassBytes << sizeClass;
}

int classFor(size_t need)
{
    int c = 0;
    while (c < kClasses - 1 && classBytes(c) < need) ++c;
    return classBytes(c) >= need ? c : -1;
}

}  // namespace

struct Block {
    std::atomic<int> refs{1};
    int sizeClass = 0;
    size_t capacity = 0;
    char* payload() { return reinterpret_cast<char*>(this) + kHeaderBytes; }
};
static_assert(sizeof(Block) <= kHeaderBytes, "block header must fit in front of the payload");

namespace {

class Registry {
public:
    Block* acquire(size_t need)
    {
        const int c = classFor(need);
        if (c < 0) return nullptr;
        std::lock_guard<std::mutex> lock(mutex);
        Block* b = nullptr;
        if (!spare[c].empty()) {
            b = spare[c].back();
            spare[c].pop_back();
            spareBytes -= classBytes(c);
        } else {
            void* mem = std::aligned_alloc(64, kHeaderBytes + classBytes(c));
            if (!mem) return nullptr;
            b = new (mem) Block;
            b->sizeClass = c;
            b->capacity = classBytes(c);
            known.emplace(reinterpret_cast<uintptr_t>(b->payload()), b);
        }
        b->refs.store(1);
        ++inUse;
        return b;
    }

    // Only the last hold takes the lock. find() takes a hold only on a
    // block whose count is not zero, so a block on its way to the free list
    // is never handed out again.
    void release(Block* b)
    {
        if (b->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        std::lock_guard<std::mutex> lock(mutex);
        --inUse;
        const int c = b->sizeClass;
        if (spareBytes + classBytes(c) <= kSpareBytes && spare[c].size() < kSparePerClass) {
            spare[c].push_back(b);
            spareBytes += classBytes(c);
        } else {
            known.erase(reinterpret_cast<uintptr_t>(b->payload()));
            b->~Block();
            std::free(b);
        }
    }

    Block* findAndHold(const void* p)
    {
        const uintptr_t a = reinterpret_cast<uintptr_t>(p);
        std::lock_guard<std::mutex> lock(mutex);
        auto it = known.upper_bound(a);
        if (it == known.begin()) return nullptr;
        --it;
        Block* b = it->second;
        if (a >= it->first + b->capacity) return nullptr;
        // A spare block has no holds and is not handed out.
        int n = b->refs.load();
        do {
            if (n == 0) return nullptr;
        } while (!b->refs.compare_exchange_weak(n, n + 1));
        return b;
    }

    size_t liveCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return inUse;
    }

private:
    std::mutex mutex;
    // Every block this process has, spare ones included, so that taking a
    // block from the free list and giving it back touch no tree.
    std::map<uintptr_t, Block*> known;  // payload start -> block
    size_t inUse = 0;                   // blocks with holds
    std::vector<Block*> spare[kClasses];
    size_t spareBytes = 0;
};

// Never destroyed: blocks may still be released by static destructors and
// threads that end after main.
Registry& registry()
{
    static Registry* r = new Registry;
    return *r;
}

}  // namespace

BlockRef::BlockRef(const BlockRef& other) : b(other.b)
{
    if (b) b->refs.fetch_add(1);
}

BlockRef::~BlockRef()
{
    if (b) registry().release(b);
}

BlockRef BlockRef::find(const void* p)
{
    if (!p) return BlockRef();
    return BlockRef(registry().findAndHold(p));
}

const char* BlockRef::begin() const
{
    return b ? b->payload() : nullptr;
}
const char* BlockRef::end() const
{
    return b ? b->payload() + b->capacity : nullptr;
}

char* NodePool::take(const char* src, int len, int headroom, const QString& owner)
{
    if (len < 0 || len > kMaxLen) {
        qWarning().noquote()
            << QStringLiteral("[%1] bufferData: refused a buffer of %2 bytes").arg(owner).arg(len);
        return nullptr;
    }
    if (headroom < 0) headroom = 0;
    if (headroom > kMaxHeadroom) {
        qWarning().noquote() << QStringLiteral("[%1] bufferData: refused %2 bytes of headroom")
                                    .arg(owner)
                                    .arg(headroom);
        return nullptr;
    }
    // Keeps the payload as aligned as the block, whatever the headroom.
    const size_t room = (static_cast<size_t>(headroom) + 15) & ~size_t(15);
    Block* b = registry().acquire(room + static_cast<size_t>(len) + kTailPad);
    if (!b) {
        qWarning().noquote()
            << QStringLiteral("[%1] bufferData: out of memory for %2 bytes").arg(owner).arg(len);
        return nullptr;
    }
    char* p = b->payload() + room;
    if (src && len > 0) std::memcpy(p, src, static_cast<size_t>(len));
    std::memset(p + len, 0, kTailPad);

    BlockRef hold(b);
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::swap(recent[next], hold);
        next = (next + 1) % kWindow;
    }
    // The oldest goes (in `hold`) outside the pool's lock.
    return p;
}

BlockRef NodePool::find(const void* p)
{
    if (!p) return BlockRef();
    const char* a = static_cast<const char*>(p);
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = 1; i <= kWindow; ++i) {
        const BlockRef& r = recent[(next - i + kWindow) % kWindow];
        if (r && a >= r.begin() && a < r.end()) return r;
    }
    return BlockRef();
}

void NodePool::clear()
{
    BlockRef old[kWindow];
    std::lock_guard<std::mutex> lock(mutex);
    for (int i = 0; i < kWindow; ++i) std::swap(old[i], recent[i]);
}

size_t liveBlocks()
{
    return registry().liveCount();
}

}  // namespace vhost
