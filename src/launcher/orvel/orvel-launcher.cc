// Placeholder until the orvel launcher lands: the row is skipped at start.
#include "orvel-launcher.h"

keldra_context *orvel_launcher_create_context(void) { return nullptr; }
int orvel_launcher_init(keldra_context *) { return 0; }
void *orvel_launcher_handler(void *) { return nullptr; }
void orvel_launcher_finish(keldra_context *context) { keldra_finish(context); }
