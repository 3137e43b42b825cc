#pragma once

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>

#include <algorithm>
#include <cstring>
#include <ios>
#include <memory>
#include <new>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace foundation::storage::vfs::detail {

// Copies [begin, end) to `out` without every CR that is followed by an LF within the range; returns
// the end of what was written. `out` must not overlap the range and must have room for all of it
// (blocks are stored whole, so bytes past the returned end may be overwritten). Sixteen bytes at a
// time where the machine can: a block holding no pair is stored as it is, a block holding one is
// stored in two overlapping pieces around its CR, others go byte by byte.
#if defined(__x86_64__) && defined(__GNUC__)
// The same, 32 bytes at a time, for processors with AVX2. Handles whole blocks only; returns where
// it stopped in `in` and `out`.
__attribute__((target("avx2"))) inline void copyWithoutCrBeforeLfAvx2(const char*& in, const char* end, char*& out)
{
    const __m256i cr = _mm256_set1_epi8('\r');
    const __m256i lf = _mm256_set1_epi8('\n');
    while (end - in >= 64) {
        const __m256i block = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
        const __m256i following = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + 1));
        const auto pairs = static_cast<unsigned>(
            _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(block, cr), _mm256_cmpeq_epi8(following, lf))));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), block);
        if (pairs == 0) {
            out += 32;
        } else if ((pairs & (pairs - 1)) == 0) {
            const int at = __builtin_ctz(pairs);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + at),
                                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + at + 1)));
            out += 31;
        } else {
            for (int k = 0; k < 32; ++k) {
                if (in[k] != '\r' || in[k + 1] != '\n')
                    *out++ = in[k];
            }
        }
        in += 32;
    }
}
#endif

inline char* copyWithoutCrBeforeLf(const char* begin, const char* end, char* out)
{
    const char* in = begin;
#if defined(__x86_64__) && defined(__GNUC__)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2)
        copyWithoutCrBeforeLfAvx2(in, end, out);
#endif
#ifdef __SSE2__
    const __m128i cr = _mm_set1_epi8('\r');
    const __m128i lf = _mm_set1_epi8('\n');
    while (end - in >= 32) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const __m128i following = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 1));
        const auto pairs = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(block, cr), _mm_cmpeq_epi8(following, lf))));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), block);
        if (pairs == 0) {
            out += 16;
        } else if ((pairs & (pairs - 1)) == 0) {
            const int at = __builtin_ctz(pairs);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + at + 1)));
            out += 15;
        } else {
            for (int k = 0; k < 16; ++k) {
                if (in[k] != '\r' || in[k + 1] != '\n')
                    *out++ = in[k];
            }
        }
        in += 16;
    }
#endif
    for (; in < end; ++in) {
        if (*in != '\r' || in + 1 == end || in[1] != '\n')
            *out++ = *in;
    }
    return out;
}

// Text mode over a seekable byte device: CR LF reads as LF, and every LF is written as CR LF (also
// one that follows a CR), so text files have CR LF line ends on every storage. Positions are the
// file's raw byte positions. Device failures pass unchanged. Copies share the device (the staging
// and scratch areas hold nothing between calls).
template <class Device>
class TextModeAdapter {
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

    static constexpr std::size_t capacity = 4096;
    static constexpr std::streamsize scratchSize = 131072;

    explicit TextModeAdapter(Device device) : m_device(std::move(device)) { m_staging.reserve(capacity); }
    TextModeAdapter(const TextModeAdapter& other) : TextModeAdapter(other.m_device) {}
    TextModeAdapter& operator=(const TextModeAdapter& other)
    {
        m_device = other.m_device;
        return *this;
    }

    // As the device's read, with each CR LF in the chunk turned into LF. A CR at the chunk's end is
    // checked against the next byte, so a pair split between two reads still reads as one LF.
    std::streamsize read(char* s, std::streamsize n)
    {
        if (n < 1)
            return m_device.read(s, n);
        // The device reads into a scratch area and the translation copies into `s`: one pass that
        // both moves and compacts, instead of compacting in place.
        if (!m_scratch)
            m_scratch.reset(static_cast<char*>(::operator new(scratchSize, std::align_val_t(64))));
        const std::streamsize got = m_device.read(m_scratch.get(), std::min<std::streamsize>(n, scratchSize));
        if (got < 1)
            return got;
        char* const kept = copyWithoutCrBeforeLf(m_scratch.get(), m_scratch.get() + got, s);
        const std::streamsize length = kept - s;
        if (s[length - 1] == '\r') {
            const std::streampos position = m_device.seek(0, std::ios_base::cur);
            char next = 0;
            if (m_device.read(&next, 1) == 1 && next == '\n')
                s[length - 1] = '\n';
            else
                m_device.seek(position, std::ios_base::beg);
        }
        return length;
    }

    // Writes the chunk with a CR before each LF, through a staging area of `capacity` bytes; returns
    // `n`, the input bytes (the added CRs do not count).
    std::streamsize write(const char* s, std::streamsize n)
    {
        const char* const end = s + n;
        const char* lf = n > 0 ? static_cast<const char*>(std::memchr(s, '\n', static_cast<std::size_t>(n))) : nullptr;
        if (!lf)
            return m_device.write(s, n);
        m_staging.clear();
        stage(s, lf);
        while (lf) {
            static constexpr char cr = '\r';
            stage(&cr, &cr + 1);
            const char* next = lf + 1 < end ? static_cast<const char*>(std::memchr(lf + 1, '\n', static_cast<std::size_t>(end - lf - 1)))
                                            : nullptr;
            stage(lf, next ? next : end);
            lf = next;
        }
        if (!m_staging.empty())
            m_device.write(m_staging.data(), static_cast<std::streamsize>(m_staging.size()));
        m_staging.clear();
        return n;
    }

    std::streampos seek(boost::iostreams::stream_offset off, std::ios_base::seekdir way)
    {
        return m_device.seek(off, way);
    }

    void close() { m_device.close(); }

private:
    void stage(const char* from, const char* to)
    {
        while (from < to) {
            const std::size_t piece = std::min(static_cast<std::size_t>(to - from), capacity - m_staging.size());
            m_staging.insert(m_staging.end(), from, from + piece);
            from += piece;
            if (m_staging.size() == capacity) {
                m_device.write(m_staging.data(), static_cast<std::streamsize>(m_staging.size()));
                m_staging.clear();
            }
        }
    }

    struct AlignedDelete {
        void operator()(char* memory) const noexcept { ::operator delete(memory, std::align_val_t(64)); }
    };

    Device m_device;
    std::vector<char> m_staging;
    std::unique_ptr<char, AlignedDelete> m_scratch; // allocated on the first read
};

} // namespace foundation::storage::vfs::detail
