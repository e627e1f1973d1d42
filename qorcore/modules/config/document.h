// Inside the module qor-config: the object for one text.
#pragma once

#include "qor/glue/config_document.h"

namespace config {

// Creates an object with an empty text. Throws std::bad_alloc.
IQORConfigDocument* make_document();

} // namespace config
