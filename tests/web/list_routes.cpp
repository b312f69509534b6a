// Prints the table of routes as JSON, for tests that go over all of them from outside.
#include "web/route_table.h"

#include <json/json.h>

#include <cstdio>

int main()
{
    Json::Value list(Json::arrayValue);
    for (const tavr::web::Route& route : tavr::web::kRoutes) {
        Json::Value entry;
        entry["method"] = route.method;
        entry["path"] = route.path;
        list.append(entry);
    }
    std::fputs(list.toStyledString().c_str(), stdout);
    return 0;
}
