#include "keldra.h"
int main() { return 0; }
