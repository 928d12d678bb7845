#pragma once

#include <QMetaType>
#include <QVariant>

struct ZarkRowEventType {
    enum Enum {
        Reset = 0, ///< Everything may have changed; the client reads the list again.
        Inserted = 1,
        Removed = 2,
        Updated = 3,
        Moved = 4, ///< From index to toIndex, where toIndex counts after the removal.
    };
};

/// One change of a list's rows. JSON: {"type": 1, "index": 4}, and "toIndex" for a move.
class ZarkRowEvent {
public:
    ZarkRowEvent() = default;
    ZarkRowEvent(ZarkRowEventType::Enum type, int index, int toIndex = -1)
        : m_type(type), m_index(index), m_toIndex(toIndex)
    {
    }
    explicit ZarkRowEvent(const QVariant& hash);

    ZarkRowEventType::Enum type() const { return m_type; }
    void setType(ZarkRowEventType::Enum type) { m_type = type; }
    int index() const { return m_index; }
    void setIndex(int index) { m_index = index; }
    int toIndex() const { return m_toIndex; } ///< -1 unless the type is Moved.
    QVariant toVariant() const;

    bool operator==(const ZarkRowEvent& other) const
    {
        return m_type == other.m_type && m_index == other.m_index && m_toIndex == other.m_toIndex;
    }

private:
    ZarkRowEventType::Enum m_type = ZarkRowEventType::Reset;
    int m_index = 0;
    int m_toIndex = -1;
};
