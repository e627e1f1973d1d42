// The description of a module that fits, in the place of qor-openssl, for one whose entry is of no use.
#pragma once

#include "qor/glue/module.h"

[[gnu::section(QOR_MODULE_SECTION), gnu::used]] static constinit const auto odd_description =
    qor::glue::describe_module("qor-openssl", "1.0", qor::glue::framework_version);
