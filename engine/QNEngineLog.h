#pragma once

#include <string>

// Asks the host's log tap whether it wants the message, and hands it over. "%@" in `format` stands
// for `argument`.
void QNEngineLog(int level, const std::string& format, const std::string& argument = {});
