// Row 3: the denial logger tavish.
#pragma once

#include "keldra.h"

class tavish_context : public keldra_context {
public:
    ~tavish_context() override {}
};

keldra_context *tavish_launcher_create_context(void);
int tavish_launcher_init(keldra_context *context);
