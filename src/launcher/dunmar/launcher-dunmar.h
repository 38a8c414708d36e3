// Row 2: the privileged-service agent dunmar.
#pragma once

#include "keldra.h"

keldra_context *dunmar_launcher_create_context(void);
int dunmar_launcher_init(keldra_context *context);
