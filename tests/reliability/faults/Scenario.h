// Scenario.h: one life of the library, during which something fails.
//
// The life: load the library; start it on a root with two lists, one of which has 20 entries for
// 3 modules; make an instance of a module that is loaded and one of a module that is not; ask for
// an interface, an attribute and the list of keys; a second list arrives and an instance is made
// from it; two of the instances go; the first list goes while one of its instances lives; that
// instance goes, and its module with it; the first list comes back; a third list arrives, whose
// module announces keys; stop; unload the library.
//
// What is demanded of the step in which something failed:
//  * its result is one that its function's text names for such a failure, its out parameters are
//    cleared;
//  * each list is declared as a whole or not at all, and each key is served or not registered, as
//    before or as after the step; what the step did not touch is unchanged; the live instance
//    answers;
//  * done again without a failure it succeeds, and then the registry is exactly as after it. Doing
//    a round of changes again means that the list goes and comes again: a list whose change was
//    lost for want of something is read when it changes next.
// Where everything fails to the end of the life, nothing is demanded of the steps but results that
// the functions' texts name; what is left over is given back afterwards, and the library unloaded.
// And from there on everything goes as if nothing had failed, to the end: the library is unmapped,
// and so are the modules. A second, short life in the same process follows without any failure.
//
// To add a step: a line in Scenario::Live, and what Between and the keys need.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_SCENARIO_H
#define VESSA_TESTS_RELIABILITY_FAULTS_SCENARIO_H

#include <functional>
#include <initializer_list>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Fault.h"
#include "Folder.h"
#include "Library.h"
#include "support/Runtime.h"

namespace faults {

// What was demanded and is not so.
class Broken : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Scenario {
  public:
    // The name of the step that is carried out stands in where.
    Scenario(Folder& folder, Faults& faults, vessa_test::Runtime& runtime, Plant plant,
             const char** where);

    // Each throws Broken.
    void Live();
    void LiveShortly();

  private:
    // Which lists are declared, and whether the library runs.
    using Lists = std::set<List>;
    using Call = std::function<void()>;

    // Carries a step out; repeat does so again, without a failure, after one.
    void Do(const char* name, const Lists& after, const Call& call, const Call& repeat);
    void CheckBetween(const Lists& before, const Lists& after);
    void CheckExactly(const Lists& lists);
    std::vector<List> Declared();
    bool Serves(const std::string& fkey);
    void CheckLive();

    void Load();
    void Start();
    void Create(const char* name, const char* fkey, void*& instance);
    void Destroy(const char* name, void*& instance);
    void Query();
    void QueryAttribute();
    void QueryAll();
    void Change(const char* name, List list, bool comes);
    void Stop();
    void GiveBack();
    void Unload();

    void Round();
    void RoundWith(List list, bool comes);
    int CreateOnce(const char* fkey, void*& instance);
    bool Hit() const { return hit_; }
    // Whether everything fails now.
    bool AllFails() const {
        return was_hit_ && faults_.fault().extent == Extent::kLife && !mended_;
    }
    void Demand(bool is_so, const std::string& what) const;
    void DemandNamed(const char* of, int result, std::initializer_list<int> named) const;
    void DemandCode(const char* of, int result, std::initializer_list<int> when_hit) const;

    Folder& folder_;
    Faults& faults_;
    vessa_test::Runtime& runtime_;
    const Plant plant_;
    Library library_{};
    Lists lists_;
    // Of this step, and of any step so far.
    bool hit_ = false;
    bool was_hit_ = false;
    bool mended_ = false;  // nothing fails any more
    bool runs_ = false;
    bool ever_ran_ = false;
    long failed_ = 0;
    const char** const step_;
    void* kept_ = nullptr;
    void* other_ = nullptr;
    void* third_ = nullptr;
};

}  // namespace faults

#endif
