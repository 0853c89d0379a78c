// Following the keys as they come and go.
#ifndef HOST_WATCH_H
#define HOST_WATCH_H

#include <csignal>
#include <map>
#include <set>
#include <string>

#include "host/codecs.h"
#include "host/corpus.h"
#include "host/progress.h"

namespace host {

// Reports on standard output, with the time, every key that can be used from now on and every
// one that is gone, and sends the corpus through each codec that comes.
class Watcher {
  public:
    Watcher(const std::set<std::string>& only, const Corpus& corpus, int level, Progress& progress,
            const volatile std::sig_atomic_t& stop);

    // Until the stop flag goes up or, if seconds is above 0, so much time has passed. False:
    // some file did not come back.
    bool Run(double seconds);

  private:
    // What kept a key from being used, in how many polls on end.
    struct Refusal {
        int result = 0;
        int times = 0;
    };
    using Refusals = std::map<std::string, Refusal>;

    void Poll();
    // Makes and destroys an instance. True: the key can be used.
    bool Probe(const Key& key, const Refusals& before, bool& is_codec);
    void Use(const Key& key);

    const std::set<std::string>& only_;  // empty: every key
    const Corpus& corpus_;
    const int level_;
    Progress& progress_;
    const volatile std::sig_atomic_t& stop_;

    std::map<std::string, Key> present_;
    Refusals refusals_;
    bool good_ = true;
};

}  // namespace host

#endif
