#include "platform/urlsession/TransferError.h"

#include <errno.h>

#include "platform/urlsession/URLRequest.h"

namespace tarvo::platform {
namespace {

std::string describe(int code) {
  switch (code) {
    case urlError::badURL:
      return "bad URL";
    case urlError::timedOut:
      return "The request timed out.";
    case urlError::unsupportedURL:
      return "unsupported URL";
    case urlError::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case urlError::cannotConnectToHost:
      return "Could not connect to the server.";
    case urlError::networkConnectionLost:
      return "The network connection was lost.";
    case urlError::tooManyRedirects:
      return "too many HTTP redirects";
    case urlError::notConnectedToInternet:
      return "The Internet connection appears to be offline.";
    case urlError::badServerResponse:
      return "There was a bad response from the server.";
    case urlError::dataLengthExceedsMaximum:
      return "resource exceeds maximum size";
    case urlError::secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case urlError::serverCertificateUntrusted:
      return "The certificate for this server is invalid.";
    case urlError::fileDoesNotExist:
      return "The file does not exist.";
    case urlError::fileIsDirectory:
      return "The file is a directory.";
    case urlError::noPermissionsToReadFile:
      return "The file may not be read.";
    case urlError::cannotOpenFile:
      return "The file cannot be opened.";
    case urlError::requestBodyStreamExhausted:
      return "request body stream exhausted";
    default:
      return "unknown error";
  }
}

}  // namespace

Error transferError(int code, const std::string& url, std::string_view reason) {
  const std::string text = describe(code);
  Error error{
      NSURLErrorDomain, code, text, {{NSLocalizedDescriptionKey, text}, {NSURLErrorFailingURLStringErrorKey, url}}};
  if (!reason.empty()) error.userInfo[NSLocalizedFailureReasonErrorKey] = std::string(reason);
  return error;
}

int urlErrorOf(CURLcode result, long systemError) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
      return urlError::badURL;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return urlError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return systemError == ENETUNREACH ? urlError::notConnectedToInternet : urlError::cannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return urlError::timedOut;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return urlError::networkConnectionLost;
    case CURLE_PEER_FAILED_VERIFICATION:
      return urlError::serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_ENGINE_INITFAILED:
      return urlError::secureConnectionFailed;
    case CURLE_FILESIZE_EXCEEDED:
      return urlError::dataLengthExceedsMaximum;
    // The scheme was checked before, so this is a reply in a version that is not spoken.
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return urlError::badServerResponse;
    default:
      return urlError::unknown;
  }
}

int urlErrorOfFile(int systemError) {
  switch (systemError) {
    case ENOENT:
    case ENOTDIR:
      return urlError::fileDoesNotExist;
    case EISDIR:
      return urlError::fileIsDirectory;
    case EACCES:
    case EPERM:
      return urlError::noPermissionsToReadFile;
    default:
      return urlError::cannotOpenFile;
  }
}

}  // namespace tarvo::platform
