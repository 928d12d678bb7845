#include "CMTreeFileReader.h"

#include <limits>

#include "CMActivateNode.h"
#include "CMContainerNode.h"
#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMValueBounds.h"
#include "CMValueNode.h"

namespace {

const QString Line = QStringLiteral("@line");
const QString Nodes = QStringLiteral("nodes");
const QString Path = QStringLiteral("path");
const QString Type = QStringLiteral("type");
const QString Title = QStringLiteral("title");
const QString Description = QStringLiteral("description");
const QString Icon = QStringLiteral("icon");
const QString Permission = QStringLiteral("permission");
const QString Modifiable = QStringLiteral("modifiable");
const QString Value = QStringLiteral("value");
const QString Persistent = QStringLiteral("persistent");
const QString Edit = QStringLiteral("edit");
const QString Rows = QStringLiteral("rows");
const QString Argument = QStringLiteral("argument");
const QString Minimum = QStringLiteral("minimum");
const QString Maximum = QStringLiteral("maximum");
const QString Step = QStringLiteral("step");
const QString Unit = QStringLiteral("unit");
const QString Options = QStringLiteral("options");
const QString Count = QStringLiteral("count");
const QString Timestamp = QStringLiteral("timestamp");

const QSet<QString> CommonKeys{ Path, Type, Title, Description, Icon, Permission };

/// JSON as it is without the lines that the parser noted.
QVariant withoutLines(const QVariant& json)
{
    if (json.userType() == QMetaType::QVariantHash) {
        QVariantHash result = json.toHash();
        result.remove(Line);
        for (QVariant& member : result)
            member = withoutLines(member);
        return result;
    }
    if (json.userType() == QMetaType::QVariantList) {
        QVariantList result = json.toList();
        for (QVariant& entry : result)
            entry = withoutLines(entry);
        return result;
    }
    return json;
}

/// A text in memory of its own: one that the node shared with the JSON would keep the memory around it from being given
/// back when the JSON goes.
QString ownText(const QVariant& json)
{
    const QString text = json.toString();
    return QString(text.constData(), text.size());
}

bool isObject(const QVariant& json)
{
    return json.userType() == QMetaType::QVariantHash;
}

} // namespace

bool CMTreeFileReader::fail(const QVariantHash& object, const QString& what)
{
    if (failed())
        return false;
    m_error.line = object.value(Line, 1).toInt();
    m_error.message = what;
    return false;
}

bool CMTreeFileReader::allow(const QVariantHash& object, const QSet<QString>& keys)
{
    // The smallest unknown key, so that a file gets the same message every time.
    QString unknown;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (it.key() != Line && !keys.contains(it.key()) && (unknown.isNull() || it.key() < unknown))
            unknown = it.key();
    }
    return unknown.isNull() || fail(object, QStringLiteral("unknown key \"%1\"").arg(unknown));
}

bool CMTreeFileReader::expect(const QVariantHash& object, const QString& key, QMetaType::Type type, const char* kind)
{
    const auto member = object.constFind(key);
    if (member == object.constEnd() || member->userType() == type)
        return true;
    return fail(object, QStringLiteral("\"%1\" must be %2").arg(key, QString::fromLatin1(kind)));
}

ZarkError CMTreeFileReader::read(const QVariant& json)
{
    const QVariantHash top = json.toHash();
    if (!isObject(json) || top.value(Nodes).userType() != QMetaType::QVariantList)
        fail(top, QStringLiteral("the file must be an object with the list \"nodes\""));
    else if (allow(top, { Nodes })) {
        const QVariantList nodes = top.value(Nodes).toList();
        for (const QVariant& node : nodes) {
            if (!isObject(node))
                fail(top, QStringLiteral("every node must be an object"));
            if (failed())
                break;
            readNode(node.toHash());
        }
    }
    return m_error;
}

void CMTreeFileReader::readNode(const QVariantHash& object)
{
    const QVariant path = object.value(Path);
    const CMPath nodePath = CMPath::fromEncoded(ownText(path));
    if (path.userType() != QMetaType::QString || !nodePath.isValid() || nodePath.worker().isEmpty()) {
        fail(object, QStringLiteral("\"path\" must be a path such as \"demo:values/i32\""));
        return;
    }
    if (!checkCommon(object))
        return;
    // Before the node's own refusal, which would log the fault a second time and without its line.
    if (m_nodes->tree()->isTaken(nodePath)) {
        fail(object, QStringLiteral("the path \"%1\" is taken").arg(nodePath.toEncoded()));
        return;
    }
    CMUINode* const node = makeNode(object, nodePath, object.value(Type).toString());
    if (failed())
        return;
    if (node)
        readCommon(object, node);
    else
        fail(object, QStringLiteral("the path \"%1\" is taken").arg(nodePath.toEncoded()));
}

CMUINode* CMTreeFileReader::makeNode(const QVariantHash& object, const CMPath& path, const QString& type)
{
    if (type == QLatin1String("value"))
        return makeValue(object, path);
    if (type == QLatin1String("list"))
        return makeList(object, path);
    if (type == QLatin1String("action"))
        return makeAction(object, path);
    if (type == QLatin1String("container"))
        return allow(object, CommonKeys) ? CMContainerNode::create(m_nodes, path) : nullptr;
    fail(object, QStringLiteral("unknown type \"%1\"").arg(type));
    return nullptr;
}

bool CMTreeFileReader::checkCommon(const QVariantHash& object)
{
    for (const QString& key : { Type, Title, Description, Icon, Permission }) {
        if (!expect(object, key, QMetaType::QString, "a text"))
            return false;
    }
    bool known = true;
    const QString permission = object.value(Permission).toString();
    if (object.contains(Permission))
        ZarkPermission::fromString(permission, &known);
    return known || fail(object, QStringLiteral("unknown permission \"%1\"").arg(permission));
}

void CMTreeFileReader::readCommon(const QVariantHash& object, CMUINode* node)
{
    if (object.contains(Title))
        node->setTitle(ownText(object.value(Title)));
    node->setDescription(ownText(object.value(Description)));
    node->setIcon(ownText(object.value(Icon)));
    if (object.contains(Permission))
        node->setPermission(ZarkPermission::fromString(object.value(Permission).toString()));
    if (object.contains(Modifiable))
        node->setModifiable(object.value(Modifiable).toBool());
}

CMUINode* CMTreeFileReader::makeValue(const QVariantHash& object, const CMPath& path)
{
    if (!allow(object, QSet<QString>(CommonKeys) << Value << Persistent << Modifiable << Edit)
        || !expect(object, Persistent, QMetaType::Bool, "true or false")
        || !expect(object, Modifiable, QMetaType::Bool, "true or false"))
        return nullptr;
    const ZarkValue value = readValue(object);
    const QVariantHash edit = failed() ? QVariantHash() : readEdit(object, value.type());
    QString none;
    const CMError error = CMValueBounds::read(edit, value.type(), &none).check(value);
    if (!failed() && !error.isEmpty())
        fail(object, error.message().source());
    if (failed())
        return nullptr;
    const bool persistent = object.value(Persistent).toBool();
    CMValueNode* const node =
        CMValueNode::create(m_nodes, path, value, persistent ? CMValueNode::Persistent : CMValueNode::Volatile);
    if (node)
        node->setEdit(edit);
    return node;
}

ZarkValue CMTreeFileReader::readValue(const QVariantHash& owner)
{
    const QVariantHash object = owner.value(Value).toHash();
    if (!isObject(owner.value(Value)) || !object.contains(Type) || !object.contains(Value)) {
        fail(owner, QStringLiteral("\"value\" must be an object with \"type\" and \"value\""));
        return {};
    }
    if (!allow(object, { Type, Value }))
        return {};
    const QString name = object.value(Type).toString();
    const ZarkValueType::Enum type = ZarkValueType::fromString(name);
    if (type == ZarkValueType::Invalid) {
        fail(object, QStringLiteral("unknown value type \"%1\"").arg(name));
        return {};
    }
    QString sentence;
    const ZarkValue value = ZarkValue::fromJson(withoutLines(object), type, &sentence);
    if (!value.isValid())
        fail(object, sentence);
    return value;
}

QVariantHash CMTreeFileReader::readEdit(const QVariantHash& owner, ZarkValueType::Enum type)
{
    if (!owner.contains(Edit) || !expect(owner, Edit, QMetaType::QVariantHash, "an object"))
        return {};
    const QVariantHash object = owner.value(Edit).toHash();
    if (!allow(object, { Minimum, Maximum, Step, Unit, Options }) || !expect(object, Unit, QMetaType::QString, "a text")
        || !expect(object, Options, QMetaType::QVariantList, "a list"))
        return {};
    const QVariantList options = object.value(Options).toList();
    for (const QVariant& option : options) {
        if (!checkOption(option, object, type))
            return {};
    }
    QVariantHash edit = withoutLines(object).toHash();
    QString fault;
    CMValueBounds::read(edit, type, &fault);
    if (!fault.isEmpty())
        fail(object, fault);
    return edit;
}

bool CMTreeFileReader::checkOption(const QVariant& option, const QVariantHash& edit, ZarkValueType::Enum type)
{
    const QVariantHash object = option.toHash();
    const bool isTitled = object.contains(Value) && !object.contains(Type);
    if (isTitled && (!allow(object, { Value, Title }) || !expect(object, Title, QMetaType::QString, "a text")))
        return false;
    QString sentence;
    return CMValueBounds::readOption(withoutLines(option), type, &sentence).isValid()
        || fail(isObject(option) ? object : edit, QStringLiteral("\"%1\": %2").arg(Options, sentence));
}

CMUINode* CMTreeFileReader::makeList(const QVariantHash& object, const CMPath& path)
{
    if (!allow(object, QSet<QString>(CommonKeys) << Rows))
        return nullptr;
    const QVariant rows = object.value(Rows);
    QVector<CMListNode::Row> held;
    if (isObject(rows)) {
        const QVariantHash generated = rows.toHash();
        const QVariant count = generated.value(Count);
        if (!allow(generated, { Count, Title }) || !expect(generated, Title, QMetaType::QString, "a text"))
            return nullptr;
        if (count.userType() != QMetaType::LongLong || count.toLongLong() < 0
            || count.toLongLong() > std::numeric_limits<int>::max()) {
            fail(generated, QStringLiteral("\"count\" must be a number of rows"));
            return nullptr;
        }
    } else if (object.contains(Rows) && rows.userType() != QMetaType::QVariantList) {
        fail(object, QStringLiteral("\"rows\" must be a list, or an object with \"count\""));
        return nullptr;
    } else {
        const QVariantList entries = rows.toList();
        for (const QVariant& entry : entries)
            held.append(readRow(entry, object));
    }
    CMListNode* const node = failed() ? nullptr : CMListNode::create(m_nodes, path);
    if (node && isObject(rows))
        fillGenerated(node, rows.toHash());
    else if (node)
        node->setRows(held);
    return node;
}

void CMTreeFileReader::fillGenerated(CMListNode* node, const QVariantHash& rows)
{
    const QStringList title = rows.value(Title).toString().split(QLatin1String("%1"));
    node->setRowSource(rows.value(Count).toInt(), [title](int index, const QString& role) {
        return role == Title ? QVariant::fromValue(TrString(title.join(QString::number(index)))) : QVariant();
    });
}

CMListNode::Row CMTreeFileReader::readRow(const QVariant& json, const QVariantHash& list)
{
    const QVariantHash object = json.toHash();
    if (!isObject(json)) {
        fail(list, QStringLiteral("every row must be an object"));
        return {};
    }
    const QStringList& roles = CMAllRoles();
    if (!allow(object, QSet<QString>(roles.begin(), roles.end())) || !checkCommon(object)
        || !expect(object, Path, QMetaType::QString, "a text")
        || !expect(object, Modifiable, QMetaType::Bool, "true or false")
        || !expect(object, Timestamp, QMetaType::LongLong, "milliseconds since 1970"))
        return {};
    CMListNode::Row row = withoutLines(object).toHash();
    for (const QString& key : { Title, Description }) {
        if (row.contains(key))
            row.insert(key, QVariant::fromValue(TrString(row.value(key).toString())));
    }
    if (row.contains(Path) && !CMPath::fromEncoded(row.value(Path).toString()).isValid())
        fail(object, QStringLiteral("\"path\" must be a path"));
    const ZarkValue value = object.contains(Value) ? readValue(object) : ZarkValue();
    if (value.isValid())
        row.insert(Value, QVariant::fromValue(value));
    if (object.contains(Edit) && !failed())
        row.insert(Edit, readEdit(object, value.type()));
    return row;
}

CMUINode* CMTreeFileReader::makeAction(const QVariantHash& object, const CMPath& path)
{
    if (!allow(object, QSet<QString>(CommonKeys) << Argument << Modifiable)
        || !expect(object, Modifiable, QMetaType::Bool, "true or false")
        || !expect(object, Argument, QMetaType::QString, "the name of a type"))
        return nullptr;
    const QString name = object.value(Argument).toString();
    const ZarkValueType::Enum type = ZarkValueType::fromString(name);
    if (object.contains(Argument) && type == ZarkValueType::Invalid) {
        fail(object, QStringLiteral("unknown value type \"%1\"").arg(name));
        return nullptr;
    }
    CMActivateNode* const node = CMActivateNode::create(m_nodes, path);
    if (node)
        node->setArgumentType(type);
    return node;
}
