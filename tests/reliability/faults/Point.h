// Point.h: one failure in one process: a forked child lives the scenario with it, and is judged by
// how it ended and by what it left.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_POINT_H
#define VESSA_TESTS_RELIABILITY_FAULTS_POINT_H

#include <cstdio>
#include <string>

#include "Fault.h"
#include "Folder.h"
#include "Library.h"

namespace faults {

// What the child leaves behind in memory that it shares with its parent.
struct Remains {
    const char* step;
    long counted;
    long failed;
    long failed_documents;
    Census census;
    Census largest_document;
    int descriptors;
    int threads;
    bool finished;
    char broken[512];
};

enum class Verdict { kGood, kCrash, kHang, kBroken, kLeak };

struct Judgement {
    Verdict verdict = Verdict::kGood;
    std::string reason;
};

// The place in which a worker has its children live, one after the other.
class Place {
  public:
    Place(const std::string& library, Plant plant, unsigned watchdog_s);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // The reference is the life in which nothing fails; null: this is it.
    // tracing for failures of system calls; may_keep_descriptors if each may leave one open.
    Judgement Live(const Fault& fault, const Remains* reference, Tracing* tracing = nullptr,
                   bool may_keep_descriptors = false);
    const Remains& remains() const { return *remains_; }
    // In this process, with the blocks that are lost and their callers on standard error.
    void Explain(const Fault& fault);

  private:
    void LiveHere(const Fault& fault, Tracing* tracing);
    Judgement Judge(int status, const Fault& fault, const Remains* reference,
                    bool may_keep_descriptors) const;
    Judgement JudgeBlocks(const Fault& fault, const Remains& reference) const;
    std::string ErrorText() const;

    Folder folder_;
    const Plant plant_;
    const unsigned watchdog_s_;
    Remains* remains_;
    std::FILE* error_file_;
};

}  // namespace faults

#endif
