#include <algorithm>
#include <string>

#include <nlohmann/json.hpp>

#include "host/config/wall.h"
#include "host/control/command.h"
#include "host/control/http/routes.h"

namespace host::control::http {

namespace {

using Json = nlohmann::ordered_json;
using What = Route::What;

Json Ref(const std::string& schema) {
  return {{"$ref", "#/components/schemas/" + schema}};
}
Json Typed(const char* type, const char* meaning) {
  return {{"type", type}, {"description", meaning}};
}
Json ListOf(Json items) {
  return {{"type", "array"}, {"items", std::move(items)}};
}
Json Content(const char* type, Json schema) {
  return {{type, {{"schema", std::move(schema)}}}};
}

Json FieldSchema(const CommandField& field) {
  using Type = CommandField::Type;
  Json schema;
  switch (field.type) {
    case Type::kText:
    case Type::kChannel:
    case Type::kLayout:
      schema["type"] = "string";
      break;
    case Type::kAlarm:
      schema["type"] = "string";
      for (const config::AlarmKind alarm : config::kAllAlarms) {
        schema["enum"].push_back(config::NameOf(alarm));
      }
      break;
    case Type::kNumber:
      schema["type"] = "number";
      break;
    case Type::kBoolean:
      schema["type"] = "boolean";
      break;
    case Type::kTexts:
      schema = ListOf({{"type", "string"}});
      break;
    case Type::kObject:
      schema["type"] = "object";
      break;
  }
  schema["description"] = field.meaning;
  return schema;
}

// without: a field that the path gives. isAlone: a command of its own, which also names its kind.
Json CommandSchema(const CommandKind& kind, const std::string& without, bool isAlone) {
  Json schema{{"type", "object"}, {"description", kind.meaning}};
  schema["properties"] = Json::object();
  schema["required"] = Json::array();
  if (isAlone) {
    schema["properties"]["command"] = {{"const", kind.name}};
    schema["required"].push_back("command");
  }
  for (const CommandField& field : kind.fields) {
    if (field.name == without) {
      continue;
    }
    schema["properties"][field.name] = FieldSchema(field);
    if (field.isRequired) {
      schema["required"].push_back(field.name);
    }
  }
  if (kind.takesChannelKeys) {
    schema["additionalProperties"] = {
        {"description",
         "Any key of a [[channel]] of a wall file: source, name, window, label, ..."}};
  } else {
    schema["additionalProperties"] = false;
  }
  return schema;
}

const CommandKind& KindNamed(const std::string& name) {
  const auto kinds = CommandKinds();
  return *std::find_if(kinds.begin(), kinds.end(),
                       [&](const CommandKind& kind) { return kind.name == name; });
}

Json Object(Json properties, Json required) {
  return {
      {"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(required)}};
}

Json Schemas() {
  const Json text{{"type", "string"}};
  const Json whole{{"type", "integer"}};
  const Json window{{"type", "array"},
                    {"items", whole},
                    {"minItems", 4},
                    {"maxItems", 4},
                    {"description", "x, y, width and height in pixels of the canvas."}};
  Json schemas;
  schemas["Channel"] =
      Object({{"name", text},
              {"source", Typed("string", "With its credentials masked.")},
              {"window", window},
              {"shown", Typed("boolean", "It is enabled, and the layout has a place for it.")},
              {"selected", {{"type", "boolean"}}},
              {"live", Typed("object", "What the channel does at this moment.")}},
             {"name", "source", "window", "shown"});
  schemas["Wall"] =
      Object({{"version", Typed("integer", "Of the state; goes up with every change.")},
              {"canvas", {{"type", "object"}}},
              {"layout", text},
              {"layouts", ListOf(text)},
              {"solo", {{"type", {"string", "null"}}}},
              {"follow", {{"type", {"string", "null"}}}},
              {"spare", Typed("integer", "Channels that can be added.")},
              {"channels", ListOf(Ref("Channel"))},
              {"dropped_clients", Typed("integer", "Followers that were too slow.")},
              {"live", Typed("object", "What the wall does at this moment.")}},
             {"version", "canvas", "layout", "channels"});
  schemas["Layout"] =
      Object({{"name", text},
              {"applied", {{"type", "boolean"}}},
              {"saved", Typed("boolean", "Live, so that it can be deleted.")},
              {"places", ListOf(Object({{"window", window}, {"channel", text}}, {"window"}))}},
             {"name", "places"});
  schemas["Result"] =
      Object({{"version", whole},
              {"changed", {{"type", "boolean"}}},
              {"frame", Typed("integer", "The first composed frame that shows all of it.")}},
             {"version", "changed"});
  schemas["Session"] =
      Object({{"role", {{"enum", {"view", "operate", nullptr}}}},
              {"asks_for_token", Typed("boolean", "Without one, nothing of the wall is served.")}},
             {"role", "asks_for_token"});
  schemas["Problem"] =
      Object({{"type", text},
              {"title", text},
              {"status", whole},
              {"detail", text},
              {"pointer", Typed("string", "JSON pointer to the field of the body that is wrong.")},
              {"nearest", Typed("string", "A known name that was probably meant.")}},
             {"type", "title", "status", "detail"});
  Json mapping;
  Json commands = Json::array();
  for (const CommandKind& kind : CommandKinds()) {
    const std::string name = std::string("Command.") + kind.name;
    schemas[name] = CommandSchema(kind, "", true);
    mapping[kind.name] = "#/components/schemas/" + name;
    commands.push_back(Ref(name));
  }
  schemas["Command"] = {
      {"oneOf", std::move(commands)},
      {"discriminator", {{"propertyName", "command"}, {"mapping", std::move(mapping)}}}};
  return schemas;
}

Json Success(const Route& route) {
  switch (route.what) {
    case What::kCommand:
    case What::kCommands:
      return Content("application/json", Ref("Result"));
    case What::kWall:
      return Content("application/json", Ref("Wall"));
    case What::kChannels:
      return Content("application/json", ListOf(Ref("Channel")));
    case What::kChannel:
      return Content("application/json", Ref("Channel"));
    case What::kLayouts:
      return Content("application/json", ListOf(Ref("Layout")));
    case What::kLayout:
      return Content("application/json", Ref("Layout"));
    case What::kEvents:
      return Content("text/event-stream", {{"type", "string"}});
    case What::kSnapshot:
      return {{"image/jpeg", Json::object()}};
    case What::kHistory:
      return Content("application/json", ListOf({{"type", "object"}}));
    case What::kSession:
    case What::kBeginSession:
    case What::kEndSession:
      return Content("application/json", Ref("Session"));
    case What::kPage:
      return {{"*/*", Json::object()}};
    case What::kPictures:
      return {{"multipart/x-mixed-replace", Json::object()}};
    case What::kDescription:
      return Content("application/json", {{"type", "object"}});
    case What::kMetrics:
    case What::kLive:
    case What::kReady:
      return Content("text/plain", {{"type", "string"}});
    case What::kWebSocket:
      break;
  }
  return Json();
}

Json Parameter(const char* where, const std::string& name, bool isRequired, const char* meaning) {
  return {{"name", name},
          {"in", where},
          {"required", isRequired},
          {"description", meaning},
          {"schema", {{"type", "string"}}}};
}

Json Operation(const Route& route) {
  Json operation{{"summary", route.summary}};
  Json parameters = Json::array();
  const std::string parameter = route.parameter();
  if (!parameter.empty()) {
    parameters.push_back(Parameter("path", parameter, true, "Its name, percent-encoded."));
  }
  if (route.changes()) {
    parameters.push_back(
        Parameter("header", "If-Match", false, "Only if the wall has this version: its ETag."));
  } else if (route.what == What::kSnapshot) {
    parameters.push_back(Parameter("query", "channel", false, "Its window alone."));
  } else if (route.what == What::kHistory) {
    parameters.push_back(
        Parameter("query", "before", false, "Only what has a smaller number than this one."));
  } else if (route.what == What::kEvents) {
    parameters.push_back(
        Parameter("header", "Last-Event-ID", false, "The last one that the client has."));
  }
  operation["parameters"] = std::move(parameters);
  if (route.body != Route::Body::kNone) {
    const Json command = Ref("Command");
    Json schema;
    if (route.what == What::kCommands) {
      schema = {{"oneOf", {command, ListOf(command)}}};
    } else if (route.what == What::kBeginSession) {
      schema = Object({{"token", {{"type", "string"}}}}, {"token"});
    } else {
      schema = CommandSchema(KindNamed(route.command), parameter, false);
    }
    operation["requestBody"] = {{"required", route.body == Route::Body::kRequired},
                                {"content", Content("application/json", std::move(schema))}};
  }
  Json success{{"description", route.status == 101 ? "The WebSocket is open." : "Done."}};
  if (Json content = Success(route); !content.is_null()) {
    success["content"] = std::move(content);
  }
  operation["responses"] = {{std::to_string(route.status), std::move(success)},
                            {"default",
                             {{"description", "Refused; nothing has changed."},
                              {"content", Content("application/problem+json", Ref("Problem"))}}}};
  operation["security"] = Json::array({Json::object(), {{"token", Json::array()}}});
  return operation;
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return static_cast<char>(c + ('a' - 'A')); });
  return text;
}

}  // namespace

Json DescribeApi() {
  Json api;
  api["openapi"] = "3.1.0";
  api["info"] = {{"title", "Tavrel wall"},
                 {"version", "1"},
                 {"description", "Follows and drives a running wall."}};
  api["servers"] = Json::array({{{"url", "/"}}});
  api["paths"] = Json::object();
  for (const Route& route : Routes()) {
    api["paths"][route.path][LowerCase(route.method)] = Operation(route);
  }
  api["components"]["schemas"] = Schemas();
  api["components"]["securitySchemes"]["token"] = {{"type", "http"}, {"scheme", "bearer"}};
  return api;
}

}  // namespace host::control::http
