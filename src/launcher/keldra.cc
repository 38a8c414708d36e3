#include "keldra.h"
#include "keldra-log.h"
#include "dunmar/launcher-dunmar.h"
#include "orvel/orvel-launcher.h"
#include "pellan/pellan-launcher.h"
#include "tavish/tavish-launcher.h"

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t thread_finished = PTHREAD_COND_INITIALIZER;
pthread_cond_t thread_started = PTHREAD_COND_INITIALIZER;
bool terminate_launcher = false;
int lock_fd = -1;

void keldra_finish(keldra_context *context) { delete context; }
