#include "platform/Korm/Clock.h"

int main() { return Korm::currentTime() > 0 ? 0 : 1; }
