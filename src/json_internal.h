#pragma once
// Helpers shared by the json source files only.
#include <jansson.h>

#include <cstdint>

// Loads a response body; a repeated key fails the load, because two values
// for one field leave the body's meaning to the parser's whim.
json_t* json_load_body(const char* text, json_error_t* error);

// Serialises a request body compactly and releases the tree. The copy is
// owned by the caller (mem_free). NULL, logged as "Error <function>: ...",
// when serialisation or the copy fails.
char* json_dump_body(json_t* root, const char* function);

// Replace a record field with a copy of a text taken from a parsed tree
// (wide: converted from UTF-8). -1 when memory runs out; the field is then
// unchanged.
int json_set_text(char** field, const char* value);
int json_set_wide(char16_t** field, const char* value);

// Logs "json_loads(<body>)\nerror.text: <text>".
void json_log_load_failure(const char* text, const json_error_t& error);
