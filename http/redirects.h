// What a request may take along when a redirect leads it elsewhere: the
// origin a URL belongs to, the parameters kept from other origins, and
// whether a redirect leaves TLS. Pure functions over the URLs as the channel
// reads them (transport/url.h), so that tables can test them.
#ifndef WEBCHANNEL_HTTP_REDIRECTS_H
#define WEBCHANNEL_HTTP_REDIRECTS_H

#include <map>
#include <string>
#include <string_view>

// Whether `url` belongs to the same origin as `origin`: both reached over TLS
// or both not (the https scheme or port 443), the same host (letter case
// aside) and the same port (the scheme's default when none is written).
bool sameOrigin(std::string_view url, std::string_view origin);

// Whether a GET that follows a redirect from `from` to `to` leaves TLS for
// plain HTTP. A location that is no URL (a relative one) is not followed, so
// it leaves nothing.
bool leavesTls(std::string_view from, std::string_view to);

// `params` less what belongs to the origin alone: the server credentials
// (3011, 3012) and the cookie (3018).
std::map<int, std::string> withoutCredentials(std::map<int, std::string> params);

#endif
