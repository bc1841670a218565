#include "shell/UpdateCheck.h"

#include <memory>
#include <mutex>

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QStringDecoder>

#include "settings/Settings.h"
#include "shell/BackgroundJobs.h"

namespace {

constexpr int kTimeoutMs = 10000;

// Guards the two addresses below.
std::mutex g_mutex;
QString g_updateInfoURL = QStringLiteral(ZANDREL_UPDATE_INFO_URL);
QString g_trustedDownloadPrefix = QStringLiteral(ZANDREL_TRUSTED_DOWNLOAD_PREFIX);

} // namespace

namespace UpdateCheck {

QString updateInfoURL()
{
    std::lock_guard lock(g_mutex);
    return g_updateInfoURL;
}

void setUpdateInfoURL(const QString& url)
{
    std::lock_guard lock(g_mutex);
    g_updateInfoURL = url;
}

QString trustedDownloadPrefix()
{
    std::lock_guard lock(g_mutex);
    return g_trustedDownloadPrefix;
}

void setTrustedDownloadPrefix(const QString& prefix)
{
    std::lock_guard lock(g_mutex);
    g_trustedDownloadPrefix = prefix;
}

QString bundleVersion()
{
    return QStringLiteral(ZANDREL_VERSION);
}

bool isNewer(const QString& offered)
{
    const std::int32_t offeredNumber = Settings::getVersionFromString(offered.toStdString());
    const std::int32_t running = Settings::getVersionFromString(bundleVersion().toStdString());
    return offeredNumber > running;
}

QNetworkRequest request(const QUrl& url, CachePolicy policy)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         policy == CachePolicy::ReloadIgnoringLocal ? QNetworkRequest::AlwaysNetwork
                                                                    : QNetworkRequest::PreferNetwork);
    request.setTransferTimeout(kTimeoutMs);
    return request;
}

QNetworkRequest checkRequest()
{
    QNetworkRequest result = request(QUrl(updateInfoURL()), CachePolicy::ReloadIgnoringLocal);
    result.setRawHeader("pragma", "no-cache");
    return result;
}

QByteArray fetch(const QNetworkRequest& request)
{
    // The loop comes first: it gives this (possibly adopted) thread the event
    // dispatcher that the manager's replies are delivered through.
    QEventLoop loop;
    QNetworkAccessManager manager;
    std::unique_ptr<QNetworkReply> reply(manager.get(request));
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        BackgroundJobs::exec(loop);
    if (!reply->isFinished()) {
        reply->abort();
        return {};
    }
    // An error page is still an answer: its body is judged like any other.
    if (!reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid())
        return {};
    QByteArray body = reply->readAll();
    if (body.isNull())
        body = QByteArray("");
    return body;
}

QStringList fields(const QByteArray& body)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(body);
    if (decoder.hasError())
        text.clear();
    return text.split(QLatin1Char('%'));
}

QString availabilityMessage(const QString& version, const QString& changeLog)
{
    // The key keeps its "%@" placeholders: the English text is the key.
    const QString format = QCoreApplication::translate(
        "UpdateDialog", "Zandrel Sync Ver. %@ is available now\r\rChangeLog:\r%@");
    return fillPlaceholders(format, {version, changeLog});
}

QString fillPlaceholders(const QString& format, const QStringList& values)
{
    QString result;
    qsizetype next = 0;
    for (qsizetype i = 0; i < format.size(); ++i) {
        if (format[i] == QLatin1Char('%') && i + 1 < format.size() && format[i + 1] == QLatin1Char('@')
            && next < values.size()) {
            result += values[next++];
            ++i;
        } else {
            result += format[i];
        }
    }
    return result;
}

} // namespace UpdateCheck
