#include "Commands.h"
#include "NodeWriter.h"
#include "Progress.h"
#include "Session.h"
#include "Snapshot.h"
#include "ValueText.h"
#include "ZarkJson.h"

namespace {

using Values = QMap<QString, QVariant>;

QStringList startsOf(const QStringList& arguments)
{
    return arguments.isEmpty() ? QStringList{ QStringLiteral(":") } : arguments;
}

Values inFile(const Session& session)
{
    const QString name = session.arguments().first();
    if (!session.isAlone() && name == QLatin1String("-"))
        throw Failure{
            ExitUsage,
            QStringLiteral("%1 takes a file for several devices").arg(QLatin1String(session.invocation.command->name))
        };
    return Snapshot::fromFile(name).values();
}

bool isSame(const QVariant& a, const QVariant& b)
{
    return ZarkJson::serialize(a) == ZarkJson::serialize(b);
}

void addDifference(Session* session, const QString& path, const QVariant* left, const QVariant* right)
{
    const bool colour = session->output->isColoured();
    const auto line = [&](const char* sign, const char* code, const QVariant* value) {
        const QByteArray text = sign + path.toUtf8() + ": " + ValueText::cell(*value).toUtf8();
        session->report.lines.append(colour ? code + text + "\033[0m" : text);
    };
    if (left)
        line("- ", "\033[31m", left);
    if (right)
        line("+ ", "\033[32m", right);
    session->report.records.append(
        { { QStringLiteral("path"), path }, { QStringLiteral("left"), left ? *left : QVariant() },
            { QStringLiteral("right"), right ? *right : QVariant() } });
}

/// All writes that a restore needs, each judged before the first is made.
struct Plan {
    QList<NodeWriter> nodes;
    QVariantList values;
};

Plan planOf(Session& session, const Values& values)
{
    Plan plan;
    QStringList faults;
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        try {
            NodeWriter node(session.api, it.key());
            node.check(it.value());
            if (isSame(node.value(), it.value()))
                continue;
            plan.nodes.append(node);
            plan.values.append(it.value());
        } catch (const Failure& failure) {
            if (failure.status == ExitUnreachable)
                throw;
            faults.append(failure.text);
        }
    }
    if (!faults.isEmpty())
        throw Failure{ ExitRefused, faults.join(QLatin1Char('\n')) + QStringLiteral("\nnothing was set") };
    return plan;
}

/// Backwards: a later write may rest on an earlier one.
QString undo(Plan* plan, const QVariantList& before)
{
    QStringList left;
    for (int i = before.size() - 1; i >= 0; --i) {
        try {
            plan->nodes[i].write(before.at(i));
        } catch (const Failure&) {
            left.append(plan->nodes.at(i).path());
        }
    }
    return left.isEmpty() ? QStringLiteral("all others were set back")
                          : QStringLiteral("these could not be set back: ") + left.join(QStringLiteral(", "));
}

void apply(Session* session, Plan* plan)
{
    Progress progress(QStringLiteral("setting"), session->isAlone());
    QVariantList before;
    for (int i = 0; i < plan->nodes.size(); ++i) {
        NodeWriter& node = plan->nodes[i];
        const QVariant old = node.value();
        try {
            node.write(plan->values.at(i));
        } catch (const Failure& failure) {
            throw Failure{ failure.status, failure.text + '\n' + undo(plan, before) };
        }
        before.append(old);
        progress.show(i + 1, plan->nodes.size(), "nodes");
    }
}

} // namespace

ExitStatus runDump(Session& session)
{
    const Snapshot snapshot = Snapshot::fromDevice(session.api, startsOf(session.arguments()), true);
    if (snapshot.hidden() > 0)
        session.note(QStringLiteral("%1 nodes are left out, which this user may not see").arg(snapshot.hidden()));
    session.report.bare = true;
    session.output->write(snapshot.toJson());
    return ExitOk;
}

ExitStatus runDiff(Session& session)
{
    Values left;
    Values right;
    if (session.targets.size() > 1 && session.isAlone()) {
        ApiClient other(session.targets.at(1));
        left = Snapshot::fromDevice(session.api, startsOf(session.arguments()), true).values();
        right = Snapshot::fromDevice(&other, startsOf(session.arguments()), true).values();
    } else {
        if (session.arguments().size() != 1)
            throw Failure{ ExitUsage, QStringLiteral("diff takes FILE, or two devices and any number of paths") };
        left = inFile(session);
        right = Snapshot::ofNodes(session.api, left.keys()).values();
    }
    Values both = right;
    for (auto it = left.cbegin(); it != left.cend(); ++it)
        both.insert(it.key(), it.value());
    for (auto it = both.cbegin(); it != both.cend(); ++it) {
        const auto inLeft = left.constFind(it.key());
        const auto inRight = right.constFind(it.key());
        const bool hasBoth = inLeft != left.cend() && inRight != right.cend();
        if (!hasBoth || !isSame(*inLeft, *inRight))
            addDifference(&session, it.key(), inLeft == left.cend() ? nullptr : &*inLeft,
                inRight == right.cend() ? nullptr : &*inRight);
    }
    return session.report.records.isEmpty() ? ExitOk : ExitFailed;
}

ExitStatus runRestore(Session& session)
{
    const Values values = inFile(session);
    Plan plan = planOf(session, values);
    const bool dry = session.invocation.has("dry-run");
    QVariantList before;
    for (const NodeWriter& node : qAsConst(plan.nodes))
        before.append(node.value());
    if (!dry)
        apply(&session, &plan);
    for (int i = 0; i < plan.nodes.size(); ++i) {
        const QVariant& old = before.at(i);
        session.report.records.append({ { QStringLiteral("path"), plan.nodes.at(i).path() },
            { QStringLiteral("old"), old }, { QStringLiteral("new"), plan.values.at(i) } });
        session.report.lines.append(
            QStringLiteral("%1: %2 → %3")
                .arg(plan.nodes.at(i).path(), ValueText::cell(old), ValueText::cell(plan.values.at(i)))
                .toUtf8());
    }
    session.report.lines.append(QStringLiteral("%1 of %2 nodes %3")
                                    .arg(plan.nodes.size())
                                    .arg(values.size())
                                    .arg(dry ? QStringLiteral("would be set") : QStringLiteral("set"))
                                    .toUtf8());
    return ExitOk;
}
