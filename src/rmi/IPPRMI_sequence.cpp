#include "rmi/IPPRMI_sequence.h"

void generateParamSeq(TipprmiSequence<TipprmiAny, 0U> &) {}
