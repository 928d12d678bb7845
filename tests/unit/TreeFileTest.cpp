#include <QtTest>

#include "Answer.h"
#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMRoot.h"
#include "CMTreeFile.h"
#include "CMUINode.h"
#include "Files.h"
#include "Rows.h"

class TreeFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // What the demo's tree has not, or the tests of the API do not see.
    void nodesHaveWhatTheFileSays()
    {
        CMRootWorker root;
        CMNodes nodes(root.tree());
        const QByteArray file = R"({"nodes": [{"path": "d:x", "type": "container", "description": "D", "icon": "I"},
            {"path": "d:list", "type": "list", "rows": [{"title": "One", "value": {"type": "bool", "value": true}}]},
            {"path": "d:run", "type": "action", "argument": "i32"}]})";
        QCOMPARE(load(file, &nodes), QString());
        const CMUINode* const node = root.tree()->node(CMPath::fromEncoded("d:x"));
        QCOMPARE(node->description().source() + node->icon(), QString("DI"));
        CMReply<ZarkRowsRoles> rows;
        root.getRows(CMPath::fromEncoded("d:list"), 0, 9, 0, { "path", "value" }, rows);
        const QVariantList row = Answer<ZarkRowsRoles>::of(rows).value.rows().value(0);
        QCOMPARE(row.value(0), QVariant("d:list.row0"));
        QCOMPARE(row.value(1).value<ZarkValue>(), ZarkValue::fromBool(true));
        CMReply<QVariant> invoked;
        root.invoke(CMPath::fromEncoded("d:run"), 1, "activate", invoked);
        QCOMPARE(Answer<QVariant>::of(invoked).errorName(), QString(CMError::NotSupported));
    }

    void faultsNameTheirLine()
    {
        Rows<QByteArray, QString> row;
        const auto add = [&](const char* name, const QByteArray& text, const char* error) {
            row(name, text, "tree.json:" + QString(error));
        };
        const auto node = [&](const char* name, const QByteArray& members, const char* error) {
            add(name, "{\"nodes\": [\n{\"path\": \"a:b\",\n" + members + "}\n]}", error);
        };
        const QByteArray i32 = R"("type": "value", "value": {"type": "i32", "value": 7})";
        add("no nodes", "{}", "1: the file must be an object with the list \"nodes\"");
        add("unknown key at the top", "\n{\"nodes\": [], \"x\": 1}", "2: unknown key \"x\"");
        add("a node that is none", "{\"nodes\": [1]}", "1: every node must be an object");
        add("no path", "{\"nodes\": [\n{\"type\": \"container\"}]}",
            "2: \"path\" must be a path such as \"demo:values/i32\"");
        add("taken", "{\"nodes\": [{\"path\": \"a:b\", \"type\": \"list\"},\n{\"path\": \"a:b\", \"type\": \"list\"}]}",
            "2: the path \"a:b\" is taken");
        node("unknown type", R"("type": "stream")", "2: unknown type \"stream\"");
        node("misspelt key", i32 + ",\n\"modifyable\": true", "2: unknown key \"modifyable\"");
        node("key of another kind", R"("type": "container", "value": 1)", "2: unknown key \"value\"");
        node("flag of another type", i32 + R"(, "persistent": 1)", "2: \"persistent\" must be true or false");
        node("unknown value type", "\"type\": \"value\", \"value\":\n{\"type\": \"int\", \"value\": 7}",
            "4: unknown value type \"int\"");
        node("unknown key in edit", i32 + ",\n\"edit\": {\"min\": 1}", "4: unknown key \"min\"");
        node("key that comes twice", i32 + ",\n\"title\": \"x\",\n\"type\": \"list\"",
            "5: the key comes twice in this object");
        node("bound beyond the type", i32 + ",\n\"edit\": {\"maximum\": 2147483648}",
            "4: \"maximum\": 2147483648 is out of the range of an i32");
        node("step of 0", i32 + ",\n\"edit\": {\"step\": 0}", "4: \"step\": must be above 0");
        node("option of another type", i32 + ",\n\"edit\": {\"options\": [7,\n{\"value\": \"8\"}]}",
            "5: \"options\": expected an i32, got a string");
        node("unknown key in an option", i32 + ",\n\"edit\": {\"options\": [7,\n{\"value\": 8, \"titel\": \"8\"}]}",
            "5: unknown key \"titel\"");
        node("bounds of a text", R"("type": "value", "value": {"type": "string", "value": ""}, "edit": {"step": 1})",
            "3: \"step\": is for numbers only");
        node("value above its maximum", i32 + ",\n\"edit\": {\"maximum\": 6}", "2: The value must be at most 6.");
        node("value that is no option", i32 + ",\n\"edit\": {\"options\": [1, 2]}",
            "2: The value is none of the options.");
        node("rows that are none", R"("type": "list", "rows": 3)",
            "2: \"rows\" must be a list, or an object with \"count\"");
        node("bounds of a row", "\"type\": \"list\", \"rows\": [{},\n{\"edit\":\n{\"unit\": 1}}]",
            "5: \"unit\" must be a text");
        node("negative count", "\"type\": \"list\", \"rows\":\n{\"count\": -1}",
            "4: \"count\" must be a number of rows");
        node("second row of three", "\"type\": \"list\", \"rows\": [\n{},\n{\"permission\": \"none\"},\n{\"x\": 1}]",
            "5: unknown permission \"none\"");
        for (const auto& [text, error] : row) {
            CMRootWorker root;
            CMNodes nodes(root.tree());
            QCOMPARE(load(text, &nodes), error);
        }
    }

private:
    QString load(const QByteArray& text, CMNodes* nodes)
    {
        writeFile(m_dir.filePath("tree.json"), text);
        QString error;
        const bool loaded = CMTreeFile::load(m_dir.filePath("tree.json"), nodes, &error);
        return loaded == error.isEmpty() ? error.remove(m_dir.path() + "/") : "result and error differ";
    }

    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TreeFileTest)
#include "TreeFileTest.moc"
