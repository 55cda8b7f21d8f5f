#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class QPluginLoader;

// Loads Qt plug-ins from a folder and keeps them loaded for the life of the manager.
// Static plug-ins linked into the executable are included too.
class PluginManager : public QObject
{
    Q_OBJECT

public:
    struct LoadError
    {
        QString fileName;
        QString text;
    };

    explicit PluginManager(QObject* parent = nullptr);
    ~PluginManager() override;

    // Loads every library in folder that is a Qt plug-in; returns how many were loaded.
    // Files that are not plug-ins or fail to load are recorded in loadErrors() and skipped.
    int loadPlugins(const QString& folder);
    void unloadPlugins();

    // The root objects of all loaded plug-ins, in load order (static ones first).
    QList<QObject*> plugins() const;
    QStringList pluginFileNames() const;
    QList<LoadError> loadErrors() const { return m_errors; }

    template <typename Interface>
    QList<Interface*> pluginsOf() const
    {
        QList<Interface*> result;
        for (QObject* object : plugins()) {
            if (auto* plugin = qobject_cast<Interface*>(object))
                result.append(plugin);
        }
        return result;
    }

signals:
    void pluginLoaded(const QString& fileName);
    void pluginLoadFailed(const QString& fileName, const QString& text);

private:
    std::vector<std::unique_ptr<QPluginLoader>> m_loaders;
    QList<QObject*> m_staticPlugins;
    QList<LoadError> m_errors;
    bool m_staticLoaded = false;
};
