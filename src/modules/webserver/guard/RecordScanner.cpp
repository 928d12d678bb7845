#include "RecordScanner.h"

#include <algorithm>

namespace {

constexpr unsigned char HandshakeRecord = 22;

}

bool RecordScanner::feed(const char* data, qsizetype length)
{
    bool found = false;
    const char* const end = data + length;
    while (data < end) {
        if (m_left > 0) {
            const qsizetype skipped = std::min(m_left, static_cast<qsizetype>(end - data));
            data += skipped;
            m_left -= skipped;
            continue;
        }
        m_header.at(m_headerBytes++) = static_cast<unsigned char>(*data++);
        if (m_headerBytes < m_header.size())
            continue;
        found = found || m_header[0] == HandshakeRecord;
        m_left = m_header[3] << 8 | m_header[4];
        m_headerBytes = 0;
    }
    return found;
}
