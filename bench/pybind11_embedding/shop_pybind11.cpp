// The six tasks of examples/embedding/shop.cpp written with pybind11's
// embedding API, for comparing what each needs (see the README beside this
// file). pybind11 has no sandbox, no per-thread output capture and no
// interrupt of one thread's evaluation, so the Python-level equivalents are
// written out here.
//
// Exits 0 when every step gave what it should; prints each step.

#include <pybind11/embed.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace py = pybind11;
using namespace py::literals;

namespace {

int failures = 0;

void check(bool ok, const std::string &what) {
  std::cout << (ok ? "ok    " : "FAILED") << "  " << what << "\n";
  failures += ok ? 0 : 1;
}

struct Order {
  std::string customer;
  double price;
  std::int64_t quantity;
  double total() const { return price * static_cast<double>(quantity); }
};

// [declare]
PYBIND11_EMBEDDED_MODULE(shop, m) {
  m.doc() = "Orders and prices.";
  m.def("vat", [](double net, double rate) { return net * rate; }, "net"_a, "rate"_a = 0.19, "The tax on a price.");
  py::class_<Order>(m, "Order", "An order of some pieces at a price.")
      .def(py::init<std::string, double, std::int64_t>(), "customer"_a, "price"_a, "quantity"_a = 1)
      .def_readwrite("customer", &Order::customer)
      .def_readwrite("price", &Order::price)
      .def_readwrite("quantity", &Order::quantity)
      .def("total", &Order::total, "The price of all pieces.");
}
// [declare]

// [helpers]
/// Statements as a function body with locals, as the host's evaluate does.
py::object exec_body(const std::string &code, py::dict scope) {
  std::string body = "def __body__():\n";
  for (auto line = code.begin(); line != code.end();) {
    auto end = std::find(line, code.end(), '\n');
    body += "    " + std::string(line, end) + "\n";
    line = end == code.end() ? end : end + 1;
  }
  py::exec(body, scope);
  return scope["__body__"]();
}

/// A sandbox: an audit hook that refuses writing files while a flag is set.
void install_sandbox() {
  py::exec(R"(
import sys, threading
_sandbox = threading.local()
def _guard(event, args):
    if getattr(_sandbox, 'on', False) and event == 'open' and isinstance(args[1], str) and any(c in args[1] for c in 'wax+'):
        raise PermissionError('writing files is not allowed in the sandbox')
    if getattr(_sandbox, 'on', False) and event in ('os.remove', 'os.system', 'subprocess.Popen'):
        raise PermissionError(event + ' is not allowed in the sandbox')
sys.addaudithook(_guard)
)");
}

/// Per-thread output capture: sys.stdout and sys.stderr write to the calling
/// thread's buffer while it captures.
void install_capture() {
  py::exec(R"(
import sys, threading
class _PerThread:
    def __init__(self, real): self.real, self.local = real, threading.local()
    def write(self, text):
        buffer = getattr(self.local, 'buffer', None)
        return buffer.append(text) if buffer is not None else self.real.write(text)
    def flush(self): self.real.flush()
sys.stdout, sys.stderr = _PerThread(sys.stdout), _PerThread(sys.stderr)
)");
}

std::string capture_output(const std::function<void()> &fn) {
  py::list buffer;
  py::module_::import("sys").attr("stdout").attr("local").attr("buffer") = buffer;
  py::module_::import("sys").attr("stderr").attr("local").attr("buffer") = buffer;
  fn();
  py::module_::import("sys").attr("stdout").attr("local").attr("buffer") = py::none();
  py::module_::import("sys").attr("stderr").attr("local").attr("buffer") = py::none();
  return py::str("").attr("join")(buffer).cast<std::string>();
}
// [helpers]

void task_ab_scripts_use_the_class_and_a_scope() {
  // [scope]
  auto total_of_order = exec_body("import shop\n"
                                  "o = shop.Order('ann', 2.5, quantity=4)\n"
                                  "return o.total() + shop.vat(o.total())", py::dict());
  py::dict names("price"_a = 12.5, "count"_a = 3, "total"_a = 0.0);
  auto label = exec_body("global total\ntotal = price * count\nreturn f'{count} items'", names);
  double total = names["total"].cast<double>();
  double half = py::eval("0.5 * 4").cast<double>();
  std::string error;
  try {
    py::eval("{}['missing']");
  } catch (const py::error_already_set &e) {
    error = std::string(e.type().attr("__name__").cast<std::string>()) + ": " + py::str(e.value()).cast<std::string>();
  }
  // [scope]
  check(total_of_order.cast<double>() == 11.9, "a script makes an Order and calls its methods: 11.9");
  check(label.cast<std::string>() == "3 items" && total == 37.5 && half == 2.0, "statements and expressions with a scope");
  check(error == "KeyError: 'missing'", "an error: " + error);
}

void task_c_call_python_and_walk_the_result() {
  // [call]
  auto stats = exec_body("def stats(xs):\n    return {'sum': sum(xs), 'sorted': sorted(xs)}\nreturn stats", py::dict());
  py::dict dict = stats(std::vector<int>{3, 1, 2});
  std::vector<std::int64_t> sorted;
  for (auto item : dict["sorted"])
    sorted.push_back(item.cast<std::int64_t>());
  dict["checked"] = true;
  auto json = py::module_::import("json").attr("dumps")(dict).cast<std::string>();
  // [call]
  check(sorted == std::vector<std::int64_t>{1, 2, 3} && dict["sum"].cast<int>() == 6,
        "walked the list and dict a Python function returned");
  check(json == R"({"sum": 6, "sorted": [1, 2, 3], "checked": true})", "json.dumps of the changed dict: " + json);
}

void task_d_the_sandbox() {
  // [sandbox]
  auto sandbox = py::globals()["_sandbox"];
  sandbox.attr("on") = true;
  bool refused = false;
  try {
    py::exec("open('/tmp/shop-sandbox.txt', 'w')");
  } catch (const py::error_already_set &) {
    refused = true;
  }
  auto allowed = py::eval("sum(range(n))", py::globals(), py::dict("n"_a = 10)).cast<int>();
  sandbox.attr("on") = false;
  // [sandbox]
  check(refused && allowed == 45, "the sandbox refuses writing a file and still computes");
}

void task_e_interrupt_and_capture() {
  // [interrupt]
  unsigned long worker = 0;
  std::thread runaway([&] {
    py::gil_scoped_acquire gil;
    worker = PyThread_get_thread_ident();
    try {
      py::exec("while True:\n    pass");
    } catch (const py::error_already_set &e) {
      check(e.matches(PyExc_KeyboardInterrupt), "interrupted");
    }
  });
  {
    py::gil_scoped_release released;
    while (worker == 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  PyThreadState_SetAsyncExc(worker, PyExc_KeyboardInterrupt);
  {
    py::gil_scoped_release released;
    runaway.join();
  }
  std::string printed = capture_output([] { py::exec("print('hello')\nprint(6 * 7)"); });
  // [interrupt]
  check(printed == "hello\n42\n", "captured output: " + printed);
}

void task_f_threads() {
  // [threads]
  std::vector<std::thread> threads;
  std::vector<std::string> outputs(4);
  {
    py::gil_scoped_release released;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t, &outputs] {
        py::gil_scoped_acquire gil;
        outputs[static_cast<std::size_t>(t)] = capture_output([t] {
          for (int i = 0; i < 100; ++i)
            py::exec("print(t, i)", py::globals(), py::dict("t"_a = t, "i"_a = i));
        });
      });
    for (auto &thread : threads)
      thread.join();
  }
  // [threads]
  bool each_its_own = true;
  for (int t = 0; t < 4; ++t) {
    std::string expected;
    for (int i = 0; i < 100; ++i)
      expected += std::to_string(t) + " " + std::to_string(i) + "\n";
    each_its_own = each_its_own && outputs[static_cast<std::size_t>(t)] == expected;
  }
  check(each_its_own, "4 threads evaluated 100 times each, each capturing its own output");
}

} // namespace

int main() {
  // [start]
  py::scoped_interpreter python;
  install_sandbox();
  install_capture();
  // [start]
  task_ab_scripts_use_the_class_and_a_scope();
  task_c_call_python_and_walk_the_result();
  task_d_the_sandbox();
  task_e_interrupt_and_capture();
  task_f_threads();
  std::cout << (failures == 0 ? "all steps passed\n" : "some steps failed\n");
  return failures == 0 ? 0 : 1;
}
