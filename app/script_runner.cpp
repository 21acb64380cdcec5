// Calls into the command line's Python modules through the host's language.

#include "script_runner.hpp"

#include "cpython_functions.hpp"
#include "python_modules.hpp"
#include "user_folder.hpp"

#include <filesystem>
#include <iostream>

namespace sarvode {

namespace {
/// Makes the runner module, once per process. The other modules (the
/// console) are made by the runner when it first needs them, so that a script
/// run does not import what they import. The modules' compiled code is kept in
/// the per-user folder, so that a start need not compile them.
constexpr const char *boot_code = R"(import sys
if '_sarvode_runner' not in sys.modules:
    sarvode_digests = {name: digest for name, text, digest in sarvode_modules}
    def sarvode_compiled(name, text, filename, cache=sarvode_cache, digests=sarvode_digests):
        # Kept compiled in the per-user folder, one file per module text and
        # Python bytecode version: compiling the runner is most of a start.
        import marshal, os
        magic = getattr(sys.modules.get('_frozen_importlib_external'), 'MAGIC_NUMBER', None)
        path = None
        if cache and magic and name in digests:
            path = os.path.join(cache, f'{name}-{digests[name]}-{magic.hex()}.bin')
            try:
                with open(path, 'rb') as f:
                    return marshal.loads(f.read())
            except (OSError, EOFError, ValueError, TypeError):
                pass
        code = compile(text, filename, 'exec')
        if path and not sys.dont_write_bytecode:
            try:
                os.makedirs(cache, exist_ok=True)
                partial = f'{path}.{os.getpid()}'
                with open(partial, 'wb') as f:
                    marshal.dump(code, f)
                os.replace(partial, path)
            except OSError:
                pass
        return code
    def sarvode_make(name, text):
        module = type(sys)(name)
        module.__file__ = '<sarvode ' + name + '>'
        sys.modules[name] = module
        exec(sarvode_compiled(name, text, module.__file__), module.__dict__)
        return module
    (sarvode_first, sarvode_text, _), *sarvode_later = sarvode_modules
    sarvode_runner = sarvode_make(sarvode_first, sarvode_text)
    sarvode_runner._sources = {name: text for name, text, digest in sarvode_later}
    sarvode_runner._make_module = sarvode_make
)";

/// Every call of the runner: one text, so that a run compiles it once. The
/// evaluation's globals hold the host modules; they are handed on to the
/// code that runs as __main__, as every evaluation sees them.
constexpr const char *call_text = R"(import sys
runner = sys.modules['_sarvode_runner']
host_names = {k: v for k, v in globals().items() if not k.startswith('sarvode_') and k not in ('self', '__builtins__')}
return runner.call(sarvode_call, sarvode_arguments, host_names))";

/// Where the runner's modules are kept compiled: "cache" in the per-user
/// folder; None when there is no such folder.
kest::Any compiled_code_folder() {
  static const std::string folder = [] {
    const auto user = user_folder();
    return user.empty() ? user : (std::filesystem::path(user) / "cache").string();
  }();
  return folder.empty() ? kest::Any(kest::None()) : kest::Any(kest::String::fromUtf8(folder));
}

kest::HashMap new_locals() { return kest::HashMap(kest::String::getType(), kest::Type()); }

kest::Tuple modules_tuple() {
  std::vector<kest::Any> items;
  for (const auto &module : python_modules())
    items.emplace_back(kest::Tuple{kest::String::fromUtf8(module.name), kest::String::fromUtf8(module.source),
                                   kest::String::fromUtf8(module.digest)});
  return kest::Tuple(std::move(items));
}

/// Makes the runner's modules, outside the sandbox even for a sandboxed run:
/// they are the host's code (they install the SIGINT handler and set
/// sys.executable), and only what a request runs is sandboxed. None, or the
/// error that stopped it.
kest::Any boot(const kest::I_Language &language) {
  static bool made = false; // calls come from the main thread, one at a time
  if (made)
    return kest::None();
  auto locals = new_locals();
  (void)locals.setChecked(kest::String(u"sarvode_modules"), modules_tuple());
  (void)locals.setChecked(kest::String(u"sarvode_cache"), compiled_code_folder());
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  auto outcome = kest::internal::result_unwrap_lazy(language.evaluate(kest::String::fromUtf8(boot_code), scope));
  made = !kest::Error::isInstance(outcome);
  return outcome;
}

/// The runner's function `function` with `arguments` (main gets the host's names too).
kest::Any call(const kest::I_Language &language, const run_options &options, const char16_t *function,
               std::vector<kest::Any> arguments = {}) {
  if (auto booted = boot(language); kest::Error::isInstance(booted))
    return booted;
  auto locals = new_locals();
  (void)locals.setChecked(kest::String(u"sarvode_call"), kest::String(function));
  (void)locals.setChecked(kest::String(u"sarvode_arguments"), kest::Tuple(std::move(arguments)));
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  static const kest::String code = kest::String::fromUtf8(call_text);
  kest::Result<kest::Any> result;
  if (options.sandbox) {
    auto python = kest::PythonLanguage::cast(language);
    if (!python.is<kest::PythonLanguage>())
      return kest::Error(kest::String(u"the Python language has no sandbox"));
    result = python.as<kest::PythonLanguage>().evaluateInSandbox(code, scope);
  } else {
    result = language.evaluate(code, scope);
  }
  return kest::internal::result_unwrap_lazy(result);
}

/// The status a call returned; an error of the runner itself is printed and is status 1.
int status_of(const kest::Any &value) {
  if (kest::Integer::isInstance(value))
    return static_cast<int>(kest::Integer::unsafeFrom(value).value());
  if (kest::Error::isInstance(value))
    print_error(std::cerr, "sarvode", kest::Error::unsafeFrom(value));
  else
    std::cerr << "sarvode: error: the runner returned no status\n";
  return 1;
}

/// Command-line words as bytes: Python decodes them as python3 decodes its
/// argv (os.fsdecode), so that bytes that are not UTF-8 survive.
kest::Tuple bytes_tuple(const std::vector<std::string> &words) {
  std::vector<kest::Any> items;
  for (const auto &word : words)
    items.emplace_back(kest::ByteArray::fromChars(word));
  return kest::Tuple(std::move(items));
}

/// The runner's status for "the code is staged": the host runs it (run_main)
/// with no Python frame beneath it, then asks the runner how it ended.
constexpr int status_staged = -1000;

int run_staged(const kest::I_Language &language, const run_options &options) {
  auto run_main = cpython_function(u"run_main");
  if (!run_main) {
    std::cerr << "sarvode: error: the Python extension cannot run a script's code\n";
    return 1;
  }
  const auto ran = kest::internal::result_unwrap_lazy(
      run_main->callWith({kest::String(u"_sarvode_runner"), kest::Boolean(options.sandbox)}));
  if (kest::Error::isInstance(ran))
    return status_of(ran);
  return status_of(call(language, options, u"after_main"));
}

} // namespace

int run_request(const kest::I_Language &language, const run_options &options, const std::vector<std::string> &request,
                const std::vector<std::string> &host_argv) {
  const int status = status_of(call(
      language, options, u"main",
      {bytes_tuple(request), bytes_tuple(host_argv), kest::Boolean(options.host_log),
       options.inspect ? kest::Any(kest::String::fromUtf8(console_history_file())) : kest::Any(kest::None())}));
  return status == status_staged ? run_staged(language, options) : status;
}

void prepare_python(const kest::I_Language &language, const run_options &options,
                    const std::vector<environment_change> &environment, const std::vector<std::string> &x_options) {
  std::vector<kest::Any> changes;
  for (const auto &change : environment)
    changes.emplace_back(kest::Tuple{kest::ByteArray::fromChars(change.name),
                                     change.before ? kest::Any(kest::ByteArray::fromChars(*change.before))
                                                   : kest::Any(kest::None())});
  (void)status_of(call(language, options, u"prepare", {kest::Tuple(std::move(changes)), bytes_tuple(x_options)}));
}

int show_value(const kest::I_Language &language, const run_options &options, const kest::Any &value) {
  if (kest::is_none(value))
    return 0;
  std::string prefix;
  if (options.show_class)
    prefix = std::string(kest::qualname(kest::class_of(value)).utf8View()) + ": ";
  return status_of(call(language, options, u"show", {value, kest::String::fromUtf8(prefix)}));
}

int check_syntax(const kest::I_Language &language, const run_options &options, const std::string &code) {
  return status_of(call(language, options, u"check_syntax", {kest::String::fromUtf8(code)}));
}

int finish_run(const kest::I_Language &language, const run_options &options, int status) {
  // python3's end: the interpreter is finalized (threads joined, atexit
  // handlers run, modules cleared, files flushed and closed), and 120 is the
  // status when the standard output could not be flushed. An interrupt wins.
  // In the sandbox, what the code left for the end (atexit functions,
  // __del__ methods) must run sandboxed: there is no finalizing then.
  if (auto shutdown = options.sandbox ? std::nullopt : cpython_function(u"shutdown")) {
    const auto ended = kest::internal::result_unwrap_lazy(shutdown->callWith({}));
    if (kest::Integer::isInstance(ended)) {
      const auto flushed = kest::Integer::unsafeFrom(ended).value();
      return status == status_interrupted || flushed == 0 ? status : static_cast<int>(flushed);
    }
  }
  // Python still runs elsewhere, or the run was sandboxed: what python3 does
  // before it finalizes, without the finalization.
  const auto value = call(language, options, u"finish", {kest::Integer(status)});
  return kest::Integer::isInstance(value) ? static_cast<int>(kest::Integer::unsafeFrom(value).value()) : status;
}

} // namespace sarvode
