// ConfigItems.h: items that no list file declares, and what is in one.
#ifndef VESSA_TESTS_UNIT_CONFIGITEMS_H
#define VESSA_TESTS_UNIT_CONFIGITEMS_H

#include <map>
#include <memory>
#include <string>

#include "vessa2/PluginConfigItem.h"

namespace vessa_test {

using AttributeMap = std::map<std::string, std::string>;

struct ItemFields {
    std::string fkey;
    std::string file_path;
    bool delay_load = false;
    bool load_fkeys = false;
    std::string config_file_path;
    AttributeMap attributes;

    PluginConfigItem Make() const {
        PluginDeclaration declaration;
        declaration.fkey = fkey;
        declaration.file_path = file_path;
        declaration.delay_load = delay_load;
        declaration.load_fkeys = load_fkeys;
        declaration.config_file_path = std::make_shared<const std::string>(config_file_path);
        for (const auto& [name, value] : attributes)
            declaration.attributes.push_back({name, value});
        return PluginConfigItem(declaration);
    }
};

inline AttributeMap AttributesOf(const PluginConfigItem& item) {
    AttributeMap attributes;
    for (const PluginAttribute& attribute : item.Attributes())
        attributes.emplace(attribute.name, attribute.value);
    return attributes;
}

}  // namespace vessa_test

#endif
