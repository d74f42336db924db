#pragma once
// Shapes shared by the single-request operation modules, filled into their
// Operation tables.
#include "frame.h"
#include "zel_internal.h"

// The record names an operation logs and reports: "<base>Opt",
// "<base>Decorator" and "Cannot allocate memory for <base>Decorator".
#define OPERATION_NAMES(op, base)                                      \
  ((op).opt_name = base "Opt", (op).decorator_name = base "Decorator", \
   (op).decorator_failure = "Cannot allocate memory for " base "Decorator")

// Object operations addressed by bucket key and object key: the entry point
// refuses a handle without a token function and logs under "src\object";
// `path` takes the escaped bucket key and key.
template <class Opt>
void object_operation(Operation& op, const OptTable& copy, const char* path) {
  operation_for<Opt>(op, copy);
  op.family_tag = "src\\object";
  op.check_handle = true;
  op.path = path;
  op.args[0] = PATH_NAME(Opt, bucket_key);
  op.args[1] = PATH_NAME(Opt, key);
}

// Operations queued on the worker pool as transfers (`transfer` says how):
// they log under "src\\object"; `check_handle` refuses a handle without a
// token function before the options are looked at.
template <class Opt>
Operation transfer_operation(const TransferOp& transfer, bool check_handle) {
  Operation op;
  op.family_tag = "src\\object";
  op.check_handle = check_handle;
  op.report = report_to_options<Opt>;
  op.transfer = &transfer;
  return op;
}

// Bucket operations: any handle is copied as it is, a thread failure is
// reported with its result as the code, logs under "src\bucket".
template <class Opt>
void bucket_operation(Operation& op, const OptTable& copy) {
  operation_for<Opt>(op, copy);
  op.family_tag = "src\\bucket";
  op.code_is_result = true;
}

// The done_callback of a success without a body to read.
template <class Opt>
void call_done(const OpCall& call, const Exchange&) {
  const Opt* opt = call.options<Opt>();
  if (opt->done_callback != nullptr) opt->done_callback(call.user_data);
}
