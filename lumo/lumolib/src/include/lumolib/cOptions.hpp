#pragma once

// The centroiding method of an imaging camera, as the host sets and reads it through LibMain.

namespace vosk::lumo {

struct COptions {
    unsigned int nbrightest = 0;  // of NBR
    float threshold = 0;          // of TSH
    unsigned int option = 0;      // 1 for TSH, 2 for NBR, 3 for COG; 0: no camera answers
};

}  // namespace vosk::lumo
