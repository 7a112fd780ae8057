#pragma once

#include <QStringView>

#include <optional>

/// The whole text as a decimal integer (an optional leading '+' or '-', then digits only, no
/// spaces) when it lies in [min, max]; nothing otherwise. The one integer parse for values from
/// outside: agent numbers, seats, ports.
std::optional<int> parseStrictInt(QStringView text, int min, int max);
