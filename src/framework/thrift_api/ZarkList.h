#pragma once

#include <QList>
#include <QVariant>

/// A list of framework records. T has toVariant() and a constructor from QVariant.
template <class T> class ZarkList : public QList<T> {
public:
    using QList<T>::QList;

    static ZarkList fromVariant(const QVariant& variant)
    {
        ZarkList list;
        const QVariantList items = variant.toList();
        for (const QVariant& item : items)
            list.append(T(item));
        return list;
    }
    QVariantList toVariant() const
    {
        QVariantList items;
        for (const T& item : *this)
            items.append(item.toVariant());
        return items;
    }
};
