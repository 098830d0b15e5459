#pragma once
// Takes the place of the desktop's browser for http and https links while it
// exists: QDesktopServices hands every such URL to it instead of launching a
// program, so a window test sees exactly what the application asked to open.
#include <QDesktopServices>
#include <QObject>
#include <QStringList>
#include <QUrl>

#include <mutex>

namespace quendral::test {

class UrlRecorder final : public QObject {
    Q_OBJECT
public:
    UrlRecorder()
    {
        for (const char* scheme : kSchemes) {
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "openUrl");
        }
    }
    ~UrlRecorder() override { removeHandlers(); }

    // From now on the platform itself is asked, as on a desktop without a
    // browser or a text-file handler: the offscreen platform opens nothing
    // and says so.
    static void removeHandlers()
    {
        for (const char* scheme : kSchemes) {
            QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
        }
    }
    UrlRecorder(const UrlRecorder&) = delete;
    UrlRecorder& operator=(const UrlRecorder&) = delete;

    [[nodiscard]] QStringList urls() const
    {
        std::lock_guard lock(_mutex);
        return _urls;
    }

public Q_SLOTS:
    void openUrl(const QUrl& url)
    {
        std::lock_guard lock(_mutex);
        _urls.push_back(url.toString());
    }

private:
    static constexpr const char* kSchemes[] = {"http", "https", "file"};
    mutable std::mutex _mutex;
    QStringList _urls;
};

} // namespace quendral::test
