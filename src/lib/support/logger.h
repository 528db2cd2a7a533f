#pragma once

#include <log4cxx/logger.h>

/// The logger of that name, never destroyed: a media thread that outlives the static objects at
/// exit may still read its level. For file-level and class-wide loggers; any thread.
const log4cxx::LoggerPtr& lastingLogger(const char* name);
