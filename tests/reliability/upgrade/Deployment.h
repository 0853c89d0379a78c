// Deployment.h: a running library with one plug-in in force, "codec" in its release 1, and the
// hands of an operator who changes the files below the plug-in root.
#ifndef VESSA_TESTS_RELIABILITY_UPGRADE_DEPLOYMENT_H
#define VESSA_TESTS_RELIABILITY_UPGRADE_DEPLOYMENT_H

#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "vessa2/PluginCoordinator.h"

namespace upgrade {

// What "codec" is doing when the files change: delay-loaded and never used; loaded, without
// instances; loaded, with one live instance.
enum class State { kNotLoaded, kLoaded, kInUse };

// What stands below the root: a list and a module; the same with the list, the module, or the
// folder with both being a link to release 1 of what is kept outside of the root.
enum class Form { kPlain, kLinkedList, kLinkedModule, kLinkedFolder };

// Names of files are relative to the root. Release n of the module is the file Release(n), outside.
class Deployment {
  public:
    Deployment(State state, Form form);
    ~Deployment();
    Deployment(const Deployment&) = delete;
    Deployment& operator=(const Deployment&) = delete;

    State state() const { return state_; }
    static std::string Release(int release);
    // The list that declares these plug-ins: "codec=./codec.so codec2=./other.so", or none.
    std::string List(const std::string& plugins) const;
    // The one that is in force at first.
    std::string FirstList() const { return List("codec=./codec.so"); }

    // How files are changed. Link makes what the name is a link to something below the folder
    // beside the root, by rename.
    void WriteOver(const std::string& name, const std::string& text);
    void CutTo(const std::string& name, size_t size);
    void Rename(const std::string& name, const std::string& text);
    void Link(const std::string& target, const std::string& name);
    void Remove(const std::string& name);
    void Keep(const std::string& name, const std::string& text);  // beside the root
    static std::string Bytes(const std::string& path);

    void Scan();
    void LastInstanceGoes();

    // What a new instance of the key is served by: "1" or "2", the release; "gone", "codec" is not
    // registered and no module is loaded; "going", it is not registered and a module is loaded;
    // "absent", another key is not registered; "no file" and "not loadable", the module could not
    // be loaded. Anything else is a surprise.
    std::string Observe(const std::string& key);
    // The live instance's, "" if it is release 1 as it has always been, or if there is none.
    std::string LiveSurprise();

    // Records from information on, since the start, but for what the registry says to a create that
    // it refuses.
    std::vector<vessa_test::LogRecord> Log() const;

  private:
    void LayOut(Form form);

    const State state_;
    vessa_test::TempDir dir_;
    vessa_test::Runtime runtime_;
    vessa_test::LogCapture log_{3};
    PluginCoordinator coordinator_;
    long modules_before_ = 0;
    void* live_ = nullptr;
};

}  // namespace upgrade

#endif
