#include "logging/WriterBackend.h"

#include <string>

#include "logging/WriterFrontend.h"

using threading::Value;

namespace logging {

namespace {

// memset that stays although the memory is freed next.
void overwrite(void* memory, size_t size) {
  memset(memory, 0xdb, size);
  __asm__ __volatile__("" : : "r"(memory) : "memory");
}

/// Overwrites and frees what `value` owns and leaves it unset, so that a writer that keeps pointers
/// into a record is found out at once instead of by luck.
void poison(Value* value) {
  const TypeTag type = value->type;
  if (value->present && (type == TYPE_TABLE || type == TYPE_VECTOR)) {
    const Value::set_t& set = type == TYPE_TABLE ? value->val.set_val : value->val.vector_val;
    for (bro_int_t i = 0; i < set.size; ++i) {
      poison(set.vals[i]);
      delete set.vals[i];
    }
    overwrite(set.vals, sizeof(set.vals[0]) * static_cast<size_t>(set.size));
    delete[] set.vals;
  } else if (value->present &&
             (type == TYPE_STRING || type == TYPE_ENUM || type == TYPE_FILE || type == TYPE_FUNC)) {
    if (value->val.string_val.data)
      overwrite(value->val.string_val.data, static_cast<size_t>(value->val.string_val.length));
    delete[] value->val.string_val.data;
  }
  value->present = false;
  value->type = TYPE_ERROR;
  overwrite(&value->val, sizeof(value->val));
}

}  // namespace

WriterBackend::WriterInfo::WriterInfo(const WriterInfo& other)
    : path(copy_string(other.path)),
      rotation_interval(other.rotation_interval),
      rotation_base(other.rotation_base),
      network_time(other.network_time) {
  for (const auto& entry : other.config)
    config.insert({copy_string(entry.first), copy_string(entry.second)});
}

WriterBackend::WriterInfo::~WriterInfo() {
  delete[] path;
  for (const auto& entry : config) {
    delete[] entry.first;
    delete[] entry.second;
  }
}

WriterBackend::WriterBackend(WriterFrontend* frontend)
    : info(new WriterInfo(frontend->Info())), num_fields(0), fields(nullptr), buffering(true) {
  SetName(frontend->Name());
}

WriterBackend::~WriterBackend() {
  RequireMain("destruction");
  for (int i = 0; i < num_fields; ++i)
    delete fields[i];
  delete[] fields;
  delete info;
}

bool WriterBackend::Init(int arg_num_fields, const threading::Field* const* arg_fields) {
  RequireChild("Init");
  SetOSName(("bro: " + std::string(Name())).c_str());
  num_fields = arg_num_fields;
  fields = arg_fields;
  return Failed() || DoInit(*info, num_fields, fields);
}

bool WriterBackend::TypesMatch(int arg_num_fields, int num_writes, threading::Value*** vals) {
  if (arg_num_fields != num_fields) {
    InternalWarning(("a record of " + std::to_string(arg_num_fields) + " values instead of " +
                     std::to_string(num_fields))
                        .c_str());
    return false;
  }
  for (int j = 0; j < num_writes; ++j) {
    for (int i = 0; i < num_fields; ++i) {
      if (vals[j][i]->type != fields[i]->type) {
        InternalWarning((std::string("a value of type ") + type_name(vals[j][i]->type) +
                         " in the column " + fields[i]->name + " of type " +
                         type_name(fields[i]->type))
                            .c_str());
        return false;
      }
    }
  }
  return true;
}

bool WriterBackend::Write(int arg_num_fields, int num_writes, threading::Value*** vals) {
  RequireChild("Write");
  bool success = TypesMatch(arg_num_fields, num_writes, vals);
  for (int j = 0; success && !Failed() && j < num_writes; ++j) {
    success = DoWrite(num_fields, fields, vals[j]);
    for (int i = 0; i < num_fields; ++i)
      poison(vals[j][i]);
  }
  for (int j = 0; j < num_writes; ++j) {
    for (int i = 0; i < arg_num_fields; ++i)
      delete vals[j][i];
    delete[] vals[j];
  }
  delete[] vals;
  return success;
}

bool WriterBackend::SetBuf(bool enabled) {
  RequireChild("SetBuf");
  if (enabled == buffering)
    return true;
  buffering = enabled;
  return Failed() || DoSetBuf(enabled);
}

bool WriterBackend::Rotate(const char* rotated_path, double open, double close,
                           bool arg_terminating) {
  RequireChild("Rotate");
  if (Failed())
    return true;
  if (DoRotate(rotated_path, open, close, arg_terminating)) {
    fprintf(stderr,
            "internal error in thread: writer %s did not call FinishedRotation() in DoRotation()\n",
            Name());
    abort();
  }
  return false;
}

bool WriterBackend::OnHeartbeat(double arg_network_time, double arg_current_time) {
  RequireChild("OnHeartbeat");
  return Failed() || DoHeartbeat(arg_network_time, arg_current_time);
}

bool WriterBackend::OnFinish(double arg_network_time) {
  RequireChild("OnFinish");
  return Failed() || DoFinish(arg_network_time);
}

}  // namespace logging
