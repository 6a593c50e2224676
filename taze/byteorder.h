/* Little-endian reading of a payload with bounds checks that cannot wrap. */
#ifndef TAZE_BYTEORDER_H
#define TAZE_BYTEORDER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tazeptn.h"
#include "taze_util.h"

namespace taze {

/* A read-only view of one section body. Every position is a 64-bit offset
 * from the start of the view, so no sum of 32-bit file fields can wrap:
 * a field that would reach past the view fails the read instead. Reads
 * advance the cursor; a failed read leaves it unchanged. */
class LeCursor {
public:
    LeCursor(const unsigned char *base, std::uint32_t size, std::uint64_t pos = 0)
        : base_(base), size_(size), pos_(pos) {}

    std::uint64_t pos() const { return pos_; }
    std::uint32_t size() const { return size_; }
    const unsigned char *base() const { return base_; }
    /* True when the first n bytes from pos lie inside the view. */
    bool has(std::uint64_t n) const { return pos_ <= size_ && n <= size_ - pos_; }
    /* True when an absolute end position lies inside the view (end <= size). */
    bool within(std::uint64_t end) const { return end <= size_; }
    /* Bytes left from pos to the end of the view (0 when past it). */
    std::uint64_t remaining() const { return pos_ <= size_ ? size_ - pos_ : 0; }
    const unsigned char *here() const { return base_ + pos_; }

    void seek(std::uint64_t pos) { pos_ = pos; }
    /* Move on without looking; the next read checks the bounds. */
    void skip(std::uint64_t n) { pos_ += n; }

    bool u16(std::uint16_t &out) { return fixed(out); }
    bool u32(std::uint32_t &out) { return fixed(out); }
    bool bytes(void *out, std::size_t n)
    {
        if (!has(n)) return false;
        std::memcpy(out, base_ + pos_, n);
        pos_ += n;
        return true;
    }
    /* A stored string: u32 length, the text, one terminator byte. The text
     * must lie in the view; the terminator too when need_nul is set. The
     * cursor ends after the terminator. */
    bool str(counted_string_t &out, bool need_nul)
    {
        std::uint64_t start = pos_;
        std::uint32_t n;
        if (!u32(n)) return false;
        if (!has(std::uint64_t(n) + (need_nul ? 1u : 0u))) { pos_ = start; return false; }
        out.ptr = base_ + pos_;
        out.len = n;
        pos_ += std::uint64_t(n) + 1u;
        return true;
    }
    /* A 12-byte list header. */
    bool list_header(std::uint32_t &magic, std::uint32_t &size, std::uint32_t &count)
    {
        if (!has(12)) return false;
        u32(magic);
        u32(size);
        u32(count);
        return true;
    }

private:
    template <typename T>
    bool fixed(T &out)
    {
        if (!has(sizeof(T))) return false;
        T v = 0;
        for (std::size_t i = 0; i < sizeof(T); ++i) v = T(v | (T(base_[pos_ + i]) << (8 * i)));
        out = v;
        pos_ += sizeof(T);
        return true;
    }

    const unsigned char *base_;
    std::uint32_t size_;
    std::uint64_t pos_;
};

/* Refuse element counts that cannot fit: n records of at least min_bytes
 * each must fit in the bytes that remain (checked before allocating). */
inline bool count_fits(std::uint64_t n, std::uint64_t min_bytes, std::uint64_t remaining)
{
    return min_bytes == 0 || n <= remaining / min_bytes;
}

} // namespace taze

#endif /* TAZE_BYTEORDER_H */
