#pragma once

#include <log4cxx/logger.h>

/// The logger of that name, kept until the process is gone: a media thread that outlives the static
/// objects at exit may still ask for its level. For file-level and class-wide loggers; any thread.
const log4cxx::LoggerPtr& lastingLogger(const char* name);
