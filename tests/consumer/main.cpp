#include "Ostra/FlowUtil.h"
#include "Ostra/Ostra.h"

int main() { return Ostra::flowIdFromName(Ostra::buildFlowName(42)) == 42 ? 0 : 1; }
