#pragma once
// The enumeration's boot of a newly found board, with the kind's previous
// image as a second chance: a board whose image does not boot still comes
// up, so a client can reach it and upload a good image.
#include "boards/dsp_status.h"

class UsbCtlr;

// Boots `ctlr` from its kind's image. When that fails because of the image
// (the reader refuses it, the program does not run, or the board refuses its
// version) and the kind has a previous image, the previous one is put in its
// place, the failed one is kept as "<image>.failed", and the board is booted
// again. Should the previous image fail too, the board rather than the image
// is at fault: the files are put back as they were and the first status is
// answered. Each step is written to the event log through the board.
dspStatus bootWithLastGoodImage(UsbCtlr& ctlr);
