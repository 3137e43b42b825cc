#pragma once

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>

#include <algorithm>
#include <cstring>
#include <ios>
#include <vector>

namespace foundation::storage::vfs::detail {

// Text mode over a seekable byte device: CR LF reads as LF, and every LF is written as CR LF (also
// one that follows a CR), so text files have CR LF line ends on every storage. Positions are the
// file's raw byte positions. Device failures pass unchanged. Copies share the device (the staging
// area is empty between calls).
template <class Device>
class TextModeAdapter {
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

    static constexpr std::size_t capacity = 4096;

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
        const std::streamsize got = m_device.read(s, n);
        if (got < 1)
            return got;
        char* const end = s + got;
        char* cr = static_cast<char*>(std::memchr(s, '\r', static_cast<std::size_t>(got)));
        if (!cr)
            return got;
        char* kept = cr; // where the next kept byte goes
        for (char* from = cr; from < end;) {
            char* next = static_cast<char*>(std::memchr(from, '\r', static_cast<std::size_t>(end - from)));
            if (!next)
                next = end;
            // Bytes up to the CR stay; the CR goes when an LF follows it within the chunk.
            const std::size_t run = static_cast<std::size_t>(next - from);
            std::memmove(kept, from, run);
            kept += run;
            if (next == end)
                break;
            if (next + 1 < end && next[1] == '\n') {
                from = next + 1;
            } else {
                *kept++ = '\r';
                from = next + 1;
            }
        }
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
            stage("\r", "\r" + 1);
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

    Device m_device;
    std::vector<char> m_staging;
};

} // namespace foundation::storage::vfs::detail
