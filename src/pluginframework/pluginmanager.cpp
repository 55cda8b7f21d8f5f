#include "pluginmanager.h"

#include <QDir>
#include <QLibrary>
#include <QLoggingCategory>
#include <QPluginLoader>

Q_LOGGING_CATEGORY(lcPlugins, "kv.plugins")

PluginManager::PluginManager(QObject* parent) : QObject(parent) {}

PluginManager::~PluginManager()
{
    unloadPlugins();
}

int PluginManager::loadPlugins(const QString& folder)
{
    if (!m_staticLoaded) {
        m_staticPlugins = QPluginLoader::staticInstances();
        m_staticLoaded = true;
    }

    QDir dir(folder);
    if (!dir.exists()) {
        qCDebug(lcPlugins) << "No plug-in folder" << folder;
        return 0;
    }

    int loaded = 0;
    // Sorted so that the load order, and with it the order of menus the plug-ins fill,
    // does not depend on the file system.
    const QStringList entries = dir.entryList(QDir::Files | QDir::Readable, QDir::Name);
    for (const QString& entry : entries) {
        const QString path = dir.absoluteFilePath(entry);
        if (!QLibrary::isLibrary(path))
            continue;
        auto loader = std::make_unique<QPluginLoader>(path);
        QObject* instance = loader->instance();
        if (!instance) {
            const QString text = loader->errorString();
            qCWarning(lcPlugins) << "Plug-in" << path << "not loaded:" << text;
            m_errors.append({path, text});
            emit pluginLoadFailed(path, text);
            continue;
        }
        m_loaders.push_back(std::move(loader));
        ++loaded;
        emit pluginLoaded(path);
    }
    return loaded;
}

void PluginManager::unloadPlugins()
{
    // unload() deletes the plug-in's root object before it unmaps the library.
    for (auto& loader : m_loaders)
        loader->unload();
    m_loaders.clear();
}

QList<QObject*> PluginManager::plugins() const
{
    QList<QObject*> result = m_staticPlugins;
    for (const auto& loader : m_loaders) {
        if (QObject* instance = loader->instance())
            result.append(instance);
    }
    return result;
}

QStringList PluginManager::pluginFileNames() const
{
    QStringList names;
    for (const auto& loader : m_loaders)
        names.append(loader->fileName());
    return names;
}
