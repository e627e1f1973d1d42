// What the kept module offers.
#pragma once

#include "qor/qor.h"

class IGauge : public IQORInterface {
public:
    virtual bool Measure(const qorString& text, qorString& out) noexcept = 0;

protected:
    ~IGauge() = default;
};
