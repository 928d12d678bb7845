#include <cstdint>
#include <cstdlib>

#include "ZarkJson.h"

/// Whatever is accepted must be written in a form that reads back as the same text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    ZarkError error;
    const QVariant value = ZarkJson::parse(text, &error, size % 2 ? ZarkJson::RecordLines : ZarkJson::NoFlags);
    if (value.isValid() != error.isEmpty())
        std::abort();
    if (!value.isValid())
        return 0;

    const QByteArray written = ZarkJson::serialize(value);
    const QVariant again = ZarkJson::parse(QString::fromUtf8(written), &error);
    if (!error.isEmpty() || ZarkJson::serialize(again) != written)
        std::abort();
    return 0;
}
