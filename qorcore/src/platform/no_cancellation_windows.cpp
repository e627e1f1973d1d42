#include "platform/no_cancellation.h"

qor::platform::no_cancellation::no_cancellation() noexcept = default;
qor::platform::no_cancellation::~no_cancellation() = default;
