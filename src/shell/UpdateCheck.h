#pragma once

#include <cstdint>

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QStringList>

// The update description file, the addresses it and the packages come
// from, and the running version it is compared with. Shared by the silent
// check at launch and the update window. Callable from any thread.
//
// The description file is one record of "%"-separated fields: version,
// package MD5 (lower-case hex), package URL, change log; later fields are
// ignored.
namespace UpdateCheck {

// Process-wide and writable at run time, so that tests and packagers can
// point them at a server of their own. Defaults come from the build.
QString updateInfoURL();
void setUpdateInfoURL(const QString& url);
QString trustedDownloadPrefix();
void setTrustedDownloadPrefix(const QString& prefix);

// The version this program reports to the update checks and the windows.
QString bundleVersion();
// True when the offered version is strictly greater than the running one,
// both as dotted a.b.c numbers (anything else counts as 0).
bool isNewer(const QString& offered);

// How a request may use cached answers. Nothing in the shell keeps a cache,
// so both reach the server, but not alike: ignoring local answers makes Qt
// send "Cache-Control: no-cache" and "Pragma: no-cache", revalidating sends
// neither, and the update server sees the difference.
enum class CachePolicy { ReloadIgnoringLocal, ReloadRevalidating };
// A GET with a 10-second transfer time-out.
QNetworkRequest request(const QUrl& url, CachePolicy policy);
// The request of the checks: ignores local caches and says "pragma: no-cache".
QNetworkRequest checkRequest();

// Worker thread only: sends the request and waits in a local event loop.
// Gives the body of any HTTP answer, error pages included, and a null array
// when no answer came (refused, timed out, stopped at shutdown).
QByteArray fetch(const QNetworkRequest& request);
// The body decoded as UTF-8 and split on every "%". A body that is not
// valid UTF-8 decodes to nothing, which makes a single empty field.
QStringList fields(const QByteArray& body);

// The localised availability text, "\r" line breaks included.
QString availabilityMessage(const QString& version, const QString& changeLog);
// Fills the "%@" placeholders of a format in order, in a single pass, so a
// value that itself holds "%@" is left as it is.
QString fillPlaceholders(const QString& format, const QStringList& values);

} // namespace UpdateCheck
