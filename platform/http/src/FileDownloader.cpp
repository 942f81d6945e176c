#include "http/FileDownloader.h"

#include <new>
#include <system_error>
#include <utility>

#include "Download.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"
#include "http/UrlInfo.h"

namespace zav {

FileDownloader::FileDownloader(std::shared_ptr<Curl> curl, Security& security,
                               std::shared_ptr<propertyapi::IPropertyApi> properties)
    : curl_(std::move(curl)), security_(security), properties_(std::move(properties)) {}

int FileDownloader::downloadFile(const std::string& url, const std::string& destination) {
    Transfer::setClientStatus(*curl_, 0);
    try {
        const UrlInfo source(formatUrl(url, properties_));
        if (!isHttpUrl(source.text())) return CURLE_UNSUPPORTED_PROTOCOL;
        return Download(*curl_, security_, properties_, source, destination).run();
    } catch (const UrlException&) {
        return CURLE_URL_MALFORMAT;
    } catch (const propertyapi::PropertyException& exception) {
        dbg::Debug::warning() << "URL cannot be completed: " << exception.what() << std::endl;
        return CURLE_URL_MALFORMAT;
    } catch (const std::system_error& error) {
        dbg::Debug::error() << error.what() << std::endl;
        return CURLE_WRITE_ERROR;
    } catch (const std::bad_alloc&) {
        return CURLE_OUT_OF_MEMORY;
    }
}

}  // namespace zav
