// The host's view of the plug-in library: what is configured, instances, names of results.
#ifndef HOST_CODECS_H
#define HOST_CODECS_H

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "codec/codec.h"
#include "vessa/vessa.h"

namespace host {

// A failed call into the plug-in library, worded for the user.
class LibraryError : public std::runtime_error {
  public:
    LibraryError(const std::string& what, int result, int plugin_error);

    int result() const { return result_; }

  private:
    int result_;
};

// "VESSA_ERR_MODULE_LOAD (the system could not load the module)"; the same for codec results.
std::string ResultText(int result);
std::string CodecResultText(int result);

// The plug-in library, running as long as this object lives.
class Library {
  public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// One function key that the list files lead to.
struct Key {
    std::string fkey;
    std::string module;      // the attribute "file", its last part
    bool announced = false;  // not declared itself: its module adds it
};

// Every key, each once, in the order of the list files. The library lists what is declared;
// the keys that a module announces are taken from the attribute "announces" of the element
// that declares the module.
std::vector<Key> ConfiguredKeys();

// A plug-in instance; throws LibraryError if it cannot be made.
class Instance {
  public:
    explicit Instance(const std::string& fkey);

    // The codec interface, or null if this plug-in is something else.
    codec_stream* FindStream() const;

  private:
    struct Destroy {
        void operator()(void* instance) const { VESSA_DestroyInstance(instance, nullptr); }
    };
    std::unique_ptr<void, Destroy> instance_;
};

}  // namespace host

#endif
