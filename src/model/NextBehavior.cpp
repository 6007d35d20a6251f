#include "model/NextBehavior.h"

QString nextBehaviorName(NextBehavior behavior) {
    switch (behavior) {
    case NextBehavior::fade:
        return QStringLiteral("fade");
    case NextBehavior::cut:
        return QStringLiteral("cut");
    default:
        return QStringLiteral("keep");
    }
}

std::optional<NextBehavior> parseNextBehavior(const QString& text) {
    for (NextBehavior behavior : kAllNextBehaviors) {
        if (nextBehaviorName(behavior) == text)
            return behavior;
    }
    return std::nullopt;
}
