#pragma once

#include "support/logger.h"

namespace models {

inline const log4cxx::LoggerPtr& serializer_logger = lastingLogger("ModelSerializers");

}  // namespace models
