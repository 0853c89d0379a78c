// Compressing files, decompressing the result and comparing every byte.
#ifndef HOST_ROUNDTRIP_H
#define HOST_ROUNDTRIP_H

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "host/codecs.h"
#include "host/corpus.h"
#include "host/progress.h"

namespace host {

// What one codec did with the corpus.
struct Outcome {
    Key key;
    std::size_t files = 0;               // came back byte for byte
    std::uint64_t plain_bytes = 0;       // of these files
    std::uint64_t compressed_bytes = 0;  // of these files
    double compress_seconds = 0;         // inside the codec only, reading files not counted
    double decompress_seconds = 0;
    std::vector<std::string> failures;  // one line for each file that did not come back

    double Ratio() const;
    double CompressMegabytesPerSecond() const;
    double DecompressMegabytesPerSecond() const;
};

// Thrown out of Run when the stop flag goes up.
struct Interrupted {};

// Sends every file of the corpus through one instance of the codec, piece by piece. A file
// that fails is noted and the next one follows; LibraryError if there is no instance or if
// the plug-in is no codec.
Outcome Run(const Key& key, const Corpus& corpus, int level, Progress& progress,
            const volatile std::sig_atomic_t& stop);

}  // namespace host

#endif
