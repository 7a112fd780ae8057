#pragma once

#include <QString>

/// The per-user folders the agent keeps its files in.
enum class XdgFolder {
    Config,    ///< $XDG_CONFIG_HOME, default ~/.config
    Data,      ///< $XDG_DATA_HOME, default ~/.local/share
    Autostart, ///< $XDG_CONFIG_HOME/autostart
};

/// The folder's path by the XDG base directory rules (a relative variable is ignored); not created.
QString xdgFolder(XdgFolder folder);
