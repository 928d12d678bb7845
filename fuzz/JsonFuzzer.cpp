#include <cstdint>

#include "Expect.h"
#include "ZarkJson.h"
#include "ZarkValue.h"

namespace {

QVariant throughText(const QVariant& value)
{
    ZarkError error;
    const QByteArray written = ZarkJson::serialize(value);
    const QVariant again = ZarkJson::parse(written, &error);
    expect(error.isEmpty() && ZarkJson::serialize(again) == written);
    return again;
}

/// A value that a node takes is written, to the store too, in a form that the same type takes again.
void readValue(const QVariant& json, ZarkValueType::Enum type)
{
    QString error;
    const ZarkValue value = ZarkValue::fromJson(json, type, &error);
    expect(value.isValid() == error.isEmpty() && (!value.isValid() || value.type() == type));
    if (value.isValid())
        expect(ZarkValue::fromJson(throughText(value.toVariant()), type, nullptr) == value);
}

} // namespace

/// Whatever is accepted must be written in a form that reads back as the same text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    ZarkError error;
    const QVariant value = ZarkJson::parse(text, &error, size % 2 ? ZarkJson::RecordLines : ZarkJson::NoFlags);
    expect(value.isValid() == error.isEmpty());
    if (!value.isValid())
        return 0;
    throughText(value);
    for (int type = ZarkValueType::Bool; type <= ZarkValueType::NetworkInfo; ++type)
        readValue(value, static_cast<ZarkValueType::Enum>(type));
    return 0;
}
