#include <cstdint>
#include <cstdlib>

#include "MultipartParser.h"

namespace {

/// Parts must begin and end in turn, and only what is inside one has data.
class Checker : public MultipartSink {
public:
    void partBegan(const MultipartPart& part) override
    {
        if (m_inside || part.name.isEmpty())
            std::abort();
        m_inside = true;
        seen += '[' + part.name + '|' + part.fileName + ']';
    }
    void partData(const char* data, qsizetype length) override
    {
        if (!m_inside || length <= 0)
            std::abort();
        seen.append(data, static_cast<int>(length));
    }
    void partEnded() override
    {
        if (!m_inside)
            std::abort();
        m_inside = false;
    }

    QByteArray seen;

private:
    bool m_inside = false;
};

} // namespace

/// The same parts must come out of a body however it is cut into pieces.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto* body = reinterpret_cast<const char*>(data);
    Checker whole;
    Checker cut;
    MultipartParser atOnce("XyZ", {}, &whole);
    MultipartParser inPieces("XyZ", {}, &cut);
    atOnce.feed(body, static_cast<qsizetype>(size));
    for (size_t i = 0; i < size; ++i)
        inPieces.feed(body + i, 1);
    if (atOnce.finish() != inPieces.finish() || atOnce.error() != inPieces.error())
        std::abort();
    if (atOnce.error() == MultipartParser::NoError && whole.seen != cut.seen)
        std::abort();
    return 0;
}
