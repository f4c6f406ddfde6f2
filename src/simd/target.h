// Which targets get no vector form: those that work one lane at a time, or that emulate vectors by loops (the
// compiler's baseline, where it is one of these), and those whose vectors have no fixed length. A kernel
// calls its plain form there. To be used in #if between Highway's foreach_target.h and the end of the file.
#pragma once

#define TQ_PLAIN_TARGET (HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128 || HWY_HAVE_SCALABLE)
