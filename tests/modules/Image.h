// Image.h: a test module and the tables that its entries give.
#ifndef VESSA_TESTS_MODULES_IMAGE_H
#define VESSA_TESTS_MODULES_IMAGE_H

#include <stdexcept>
#include <string>
#include <utility>

#include "LoadedImage.h"
#include "vessa/tarnet.h"

class Image : public LoadedImage {
  public:
    using LoadedImage::LoadedImage;

    const tarnet_export_table_v1* V1(const char* name = TARNET_ENTRY_V1) const {
        return Call<tarnet_entry_v1_t>(name);
    }
    const tarnet_export_table_v2* V2(const char* name = TARNET_ENTRY_V2) const {
        return Call<tarnet_entry_v2_t>(name);
    }

  private:
    template <class Entry>
    decltype(std::declval<Entry>()()) Call(const char* name) const {
        const Entry entry = reinterpret_cast<Entry>(Symbol(name));
        if (entry == nullptr) throw std::runtime_error(std::string("no ") + name);
        return entry();
    }
};

#endif
