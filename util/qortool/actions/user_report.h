// The report on a user account, to standard output.
#pragma once

#include "qor/qor.h"

void print_user_report(const zetSmartPointer<IQORUserToken>& token);
