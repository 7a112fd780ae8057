#pragma once

#include <QObject>

/// Emits `signal` of `object` with `after` when it differs from `before`: the one shape of every
/// "value changed" notification of a store that takes all its values at once.
template <class Object, class Value, class Arg>
void announce(Object *object, const Value &before, const Value &after, void (Object::*signal)(Arg))
{
    if (before != after)
        Q_EMIT(object->*signal)(after);
}
