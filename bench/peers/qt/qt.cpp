// Qt: an object of the plug-in with a key, by the factory that Qt's own kinds of plug-ins use.
#include <QCoreApplication>
#include <QGenericPlugin>
#include <QGenericPluginFactory>
#include <QLoggingCategory>
#include <QPluginLoader>
#include <QStringList>

#include "common/CreateRows.h"
#include "common/Folder.h"
#include "common/LoadRow.h"
#include "common/LogRow.h"

namespace bench {
namespace {

Q_LOGGING_CATEGORY(log_category, "bench", QtFatalMsg)

std::string ModuleWith(size_t keys) {
    return BENCH_MODULE_WITH + std::to_string(keys) + ".so";
}

class CreateHost {
  public:
    explicit CreateHost(size_t keys) {
        // The factory looks for its plug-ins once in a process.
        static size_t found_keys = 0;
        if (found_keys != 0 && found_keys != keys) return;
        found_keys = keys;
        for (const std::string& key : Keys(keys)) keys_.append(QString::fromStdString(key));
        folder_.Copy(ModuleWith(keys), "generic/libbench.so");
        QCoreApplication::setLibraryPaths({QString::fromStdString(folder_.Path())});
    }
    // Null for another number of keys than the first one of the process.
    void* Create(size_t key) {
        if (keys_.isEmpty()) return nullptr;
        return QGenericPluginFactory::create(keys_[static_cast<qsizetype>(key)], no_options_);
    }
    void Destroy(size_t, void* instance) { delete static_cast<QObject*>(instance); }

  private:
    TempFolder folder_;
    QStringList keys_;
    const QString no_options_;
};

class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : files_(files) {}
    bool FirstUse(size_t index) {
        QPluginLoader loader(QString::fromStdString(files_[index]));
        auto* const plugin = qobject_cast<QGenericPlugin*>(loader.instance());
        return plugin != nullptr && plugin->create(key_, key_) != nullptr;
    }
    static std::string Module() { return ModuleWith(1); }
    static const char* Symbol() { return "qt_plugin_instance"; }

  private:
    std::vector<std::string> files_;
    QString key_ = QString::fromStdString(Key(0));
};

}  // namespace

void RegisterRows() {
    CreateLimits limits;
    // 10,000 keys cost a walk through all of them; 100,000 would take milliseconds an operation.
    limits.keys = {1, 100, 10000};
    CreateRows<CreateHost>::Register("qt", limits);
    RegisterLoad<LoadHost>("qt");
    RegisterSuppressedRecord(
        "qt", [] {},
        [](void* address, int number) {
            qCDebug(log_category, "benchmark record, instance %p, plugin error %d", address,
                    number);
        });
}

}  // namespace bench
