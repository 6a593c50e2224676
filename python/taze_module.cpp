/* The Python module taze: the C++ interface of taze.hpp for Python.
 *
 * A Pattern owns a taze::reloading_handle, so reload() can run in one thread
 * while other threads query. Every query converts its arguments while it
 * holds the GIL, releases the GIL, takes the current snapshot, asks the
 * library, and converts the answer after taking the GIL back. The bulk forms
 * (exact_many and friends) do the same once for a whole sequence of keys.
 *
 * Answers the library refuses with PARA_ERR (a negative list number, a map
 * number out of range, nothing loaded) raise taze.ParameterError; lookups by
 * id or position that find nothing give None. */
#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <pybind11/eval.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "taze.hpp"

namespace py = pybind11;

namespace {

/* The Python classes the module defines in Python (exceptions, named tuples,
 * the reload report), looked up once at import. Never freed: they live as
 * long as the interpreter. */
struct python_types {
    py::object error, errors_by_code, rule, rule_at, clean_check, clean, protocol, protocol_group, risk, map_entry,
        reload_report, ipv4_address, ipv6_address, numpy_empty, numpy_bool;
};
python_types *types = nullptr;

constexpr const char *kPythonPart = R"PY(
import collections, dataclasses, ipaddress, typing

class Error(Exception):
    """A result code of the library: code (int), text, and the operation;
    report: the ReloadReport of a failed load or reload, else None."""
    report = None
    def __init__(self, code, text, operation=None):
        super().__init__(code, text, operation)
        self.code, self.text, self.operation = code, text, operation
    def __str__(self):
        where = f"{self.operation}: " if self.operation else ""
        return f"{where}{self.text} [{self.code}]"

class NotFoundError(Error, LookupError): """UNKNOWN_ERR (-1): nothing found or no usable pattern."""
class AccessError(Error, OSError): """ACCESS_ERR (-87): the directory cannot be scanned or holds no matching file."""
class OpenError(Error, OSError): """OPEN_R_ERR (-94): the pattern file cannot be opened."""
class ReadError(Error, ValueError): """READ_ERR (-96): the file is rejected or holds no main pattern."""
class NoMemoryError(Error, MemoryError): """NO_MEM_ERR (-98)."""
class ParameterError(Error, ValueError): """PARA_ERR (-99): bad argument or handle state."""

_errors_by_code = {-1: NotFoundError, -87: AccessError, -94: OpenError, -96: ReadError,
                   -98: NoMemoryError, -99: ParameterError}

Rule = collections.namedtuple("Rule", "id description risk_type risk_group confidence threat_type")
RuleAt = collections.namedtuple("RuleAt", "index id description risk_type risk_group confidence enabled")
CleanCheck = collections.namedtuple("CleanCheck", "clean target")
Clean = collections.namedtuple("Clean", "priority src dst")
Protocol = collections.namedtuple("Protocol", "id description group_id")
ProtocolGroup = collections.namedtuple("ProtocolGroup", "id description protocols")
Risk = collections.namedtuple("Risk", "policy_id severity")
MapEntry = collections.namedtuple("MapEntry", "key values")

def _version_text(v):
    return None if v is None else f"{v >> 28}.{v & 0xFFFFF:05}.{(v >> 20) & 0xFF:02}"

@dataclasses.dataclass(frozen=True)
class ReportEntry:
    """One entry of the pattern directory and what a load made of it.
    reason: why the scan passed it over ("path_too_long", "not_regular_file",
    "prefix_mismatch", "suffix_mismatch", "peek_failed", "version_mismatch")
    or what became of a candidate ("loaded", "load_failed": a newer file
    whose load failed with the code result, "not_tried": an older file).
    number: the number after the prefix (None when the prefix does not
    match); version: the version text peeked from the file (None when the
    scan read none)."""
    name: str
    reason: str
    number: typing.Optional[int]
    version: typing.Optional[str]
    result: int

    @classmethod
    def _make(cls, name, reason, number, version, result):
        return cls(name, reason, number, _version_text(version), result)

@dataclasses.dataclass(frozen=True)
class ReloadReport:
    """What a load or reload did. source: the file or directory loaded from;
    path and version: the file that loaded and its pattern version (None when
    the load failed); previous_version: the version before; result: the
    load's result code (0 on success); scan_result: the directory scan's code
    (0, or -1..-7); entries: a ReportEntry per directory entry, in directory
    order (empty for a single file). Read the fields by name."""
    source: str
    version: typing.Optional[str]
    previous_version: typing.Optional[str]
    path: typing.Optional[str] = None
    result: int = 0
    scan_result: int = 0
    entries: typing.Tuple[ReportEntry, ...] = ()

    def entry(self, name):
        """The ReportEntry of the directory entry name, or None."""
        return next((e for e in self.entries if e.name == name), None)

    @classmethod
    def _make(cls, source, version, previous_version, path, result, scan_result, entries):
        return cls(source, _version_text(version), previous_version, path, result, scan_result,
                   tuple(ReportEntry._make(*e) for e in entries))

TAZ, ULM = 0, 1
ANY, INBOUND, OUTBOUND = 1, 2, 3
TT_FILE_PATTERN, TT_MALICIOUS_BEHAVIOR, TT_SUSPICIOUS_BEHAVIOR, TT_EXPLOIT = 0, 1, 2, 3
TT_GRAYWARE, TT_QIM, TT_ZUL, TT_HIDDEN = 4, 5, 6, 99
del collections, dataclasses, typing
)PY";

/* ---- errors ----------------------------------------------------------------- */

/* Raises the Error subclass of code; report (a ReloadReport) goes into the
 * exception's report attribute. */
[[noreturn]] void raise_code(int code, const char *operation, const py::object &report = py::object())
{
    py::object cls = types->error;
    py::dict by_code = types->errors_by_code;
    if (by_code.contains(py::int_(code))) cls = by_code[py::int_(code)];
    const std::string text = taze::error_category().message(code);
    const py::object e = cls(code, text, operation);
    if (report) e.attr("report") = report;
    PyErr_SetObject(cls.ptr(), e.ptr());
    throw py::error_already_set();
}
[[noreturn]] void refused(const char *operation) { raise_code(PARA_ERR, operation); }

template <class T>
T value_or_refuse(std::optional<T> v, const char *operation)
{
    if (!v) refused(operation);
    return std::move(*v);
}

/* ---- arguments ---------------------------------------------------------------- */

/* The bytes of a str (UTF-8) or bytes object, borrowed from it; a NUL byte
 * inside is refused, since the library would see only the text before it. */
std::string_view text_of(py::handle o, const char *operation)
{
    const char *p = nullptr;
    Py_ssize_t n = 0;
    if (PyUnicode_Check(o.ptr())) {
        p = PyUnicode_AsUTF8AndSize(o.ptr(), &n);
        if (!p) throw py::error_already_set();
    } else if (PyBytes_Check(o.ptr())) {
        p = PyBytes_AS_STRING(o.ptr());
        n = PyBytes_GET_SIZE(o.ptr());
    } else {
        throw py::type_error(std::string(operation) + ": expected str or bytes, got " +
                             std::string(py::str(py::type::handle_of(o).attr("__name__"))));
    }
    if (std::memchr(p, '\0', static_cast<std::size_t>(n))) refused(operation);
    return {p, static_cast<std::size_t>(n)};
}

py::str to_str(std::string_view s)
{
    PyObject *o = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
    if (!o) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(o);
}
py::object to_str(const std::optional<std::string> &s) { return s ? py::object(to_str(std::string_view(*s))) : py::none(); }

/* An int or any object with __index__ (NumPy integers). */
unsigned long long unsigned_of(py::handle o, unsigned long long max, const char *what)
{
    PyObject *i = PyNumber_Index(o.ptr());
    if (!i) throw py::error_already_set();
    const unsigned long long v = PyLong_AsUnsignedLongLong(i);
    Py_DECREF(i);
    if (PyErr_Occurred()) {
        PyErr_Clear();
        throw py::value_error(std::string(what) + " out of range: " + std::string(py::repr(o)));
    }
    if (v > max) throw py::value_error(std::string(what) + " out of range: " + std::string(py::repr(o)));
    return v;
}

/* An unsigned 32-bit number (rule ids, protocols, map keys and values). */
std::uint32_t u32_of(py::handle o)
{
    if (!PyIndex_Check(o.ptr())) throw py::type_error("expected int, got " + std::string(py::repr(o)));
    return static_cast<std::uint32_t>(unsigned_of(o, 0xFFFFFFFFu, "value"));
}

/* IPv4 in host byte order: an int, a dotted str or bytes, or an IPv4Address. */
std::uint32_t ipv4_of(py::handle o)
{
    if (PyLong_Check(o.ptr())) return static_cast<std::uint32_t>(unsigned_of(o, 0xFFFFFFFFu, "IPv4 address"));
    if (PyUnicode_Check(o.ptr()) || PyBytes_Check(o.ptr())) {
        const std::string s(text_of(o, "ipv4"));
        in_addr a{};
        if (inet_pton(AF_INET, s.c_str(), &a) != 1) throw py::value_error("not an IPv4 address: " + s);
        return ntohl(a.s_addr);
    }
    if (py::isinstance(o, types->ipv4_address)) return static_cast<std::uint32_t>(py::int_(py::reinterpret_borrow<py::object>(o)));
    if (PyIndex_Check(o.ptr())) return static_cast<std::uint32_t>(unsigned_of(o, 0xFFFFFFFFu, "IPv4 address"));
    throw py::type_error("expected an IPv4 address (str, int or ipaddress.IPv4Address), got " +
                         std::string(py::repr(o)));
}

/* IPv6: a str, an int, 16 packed bytes, or an IPv6Address. */
taze::ipv6 ipv6_of(py::handle o)
{
    taze::ipv6 a{};
    if (PyUnicode_Check(o.ptr())) {
        const std::string s(text_of(o, "ipv6"));
        if (inet_pton(AF_INET6, s.c_str(), a.data()) != 1) throw py::value_error("not an IPv6 address: " + s);
        return a;
    }
    py::object packed;
    if (PyBytes_Check(o.ptr())) {
        packed = py::reinterpret_borrow<py::object>(o);
    } else if (py::isinstance(o, types->ipv6_address)) {
        packed = o.attr("packed");
    } else if (PyLong_Check(o.ptr())) {
        if (PyObject_RichCompareBool(o.ptr(), py::int_(0).ptr(), Py_LT) == 1) throw py::value_error("negative IPv6");
        packed = o.attr("to_bytes")(16, "big");
    } else {
        throw py::type_error("expected an IPv6 address (str, int, 16 bytes or ipaddress.IPv6Address), got " +
                             std::string(py::repr(o)));
    }
    if (PyBytes_GET_SIZE(packed.ptr()) != 16) throw py::value_error("a packed IPv6 address has 16 bytes");
    std::memcpy(a.data(), PyBytes_AS_STRING(packed.ptr()), a.size());
    return a;
}

/* A port: an int or a decimal str. */
std::uint16_t port_of(py::handle o)
{
    if (PyUnicode_Check(o.ptr())) {
        const std::string_view s = text_of(o, "port");
        unsigned v = 0;
        if (s.empty() || s.size() > 5) throw py::value_error("not a port: " + std::string(s));
        for (char c : s) {
            if (c < '0' || c > '9') throw py::value_error("not a port: " + std::string(s));
            v = v * 10 + static_cast<unsigned>(c - '0');
        }
        if (v > 0xFFFF) throw py::value_error("not a port: " + std::string(s));
        return static_cast<std::uint16_t>(v);
    }
    if (PyIndex_Check(o.ptr())) return static_cast<std::uint16_t>(unsigned_of(o, 0xFFFF, "port"));
    throw py::type_error("expected a port (int or str), got " + std::string(py::repr(o)));
}

/* Direction: 1 / "any", 2 / "inbound", 3 / "outbound", or any int. */
unsigned direction_of(py::handle o)
{
    if (PyUnicode_Check(o.ptr())) {
        const std::string s = py::cast<std::string>(o);
        if (s == "any") return 1;
        if (s == "inbound") return 2;
        if (s == "outbound") return 3;
        throw py::value_error("direction is any, inbound, outbound or a number: " + s);
    }
    return u32_of(o);
}

std::optional<taze::kind> kind_of(const py::object &o)
{
    if (o.is_none()) return std::nullopt;
    return static_cast<taze::kind>(py::cast<int>(o));
}

py::object ipv6_object(const taze::ipv6 &a)
{
    return types->ipv6_address(py::bytes(reinterpret_cast<const char *>(a.data()), a.size()));
}

/* ---- results of a bulk call ----------------------------------------------------- */

/* One byte per key, written without the GIL: a NumPy bool array's buffer when
 * NumPy is present (and wanted), else a plain buffer turned into a list. */
class bool_results {
public:
    bool_results(std::size_t n, const py::object &want_numpy)
    {
        find_numpy();
        const bool use_numpy = want_numpy.is_none() ? !types->numpy_empty.is_none() : py::cast<bool>(want_numpy);
        if (use_numpy) {
            if (types->numpy_empty.is_none()) throw py::import_error("numpy is not installed");
            array_ = types->numpy_empty(n, py::arg("dtype") = types->numpy_bool);
            if (PyObject_GetBuffer(array_.ptr(), &view_, PyBUF_WRITABLE | PyBUF_C_CONTIGUOUS) != 0) {
                throw py::error_already_set();
            }
            held_ = true;
            data_ = static_cast<unsigned char *>(view_.buf);
        } else {
            plain_.resize(n);
            data_ = plain_.data();
        }
    }
    bool_results(const bool_results &) = delete;
    bool_results &operator=(const bool_results &) = delete;
    ~bool_results()
    {
        if (held_) PyBuffer_Release(&view_);
    }
    unsigned char *data() noexcept { return data_; }
    py::object take()
    {
        if (held_) {
            PyBuffer_Release(&view_);
            held_ = false;
            return array_;
        }
        py::list out(plain_.size());
        for (std::size_t i = 0; i < plain_.size(); ++i) out[i] = py::bool_(plain_[i] != 0);
        return std::move(out);
    }

private:
    /* NumPy is optional and imported at the first bulk call, not with taze. */
    static void find_numpy()
    {
        static bool tried = false;
        if (tried) return;
        tried = true;
        try {
            const py::module_ np = py::module_::import("numpy");
            types->numpy_empty = np.attr("empty");
            types->numpy_bool = np.attr("bool_");
        } catch (const py::error_already_set &) {
            /* no NumPy: bulk calls return lists */
        }
    }

    py::object array_;
    Py_buffer view_{};
    bool held_ = false;
    std::vector<unsigned char> plain_;
    unsigned char *data_ = nullptr;
};

/* The keys of a bulk call as a sequence the loop can index. */
py::object fast_sequence(const py::handle &items)
{
    PyObject *seq = PySequence_Fast(items.ptr(), "expected an iterable of keys");
    if (!seq) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(seq);
}

/* A numeric buffer (array.array, NumPy array) of one unsigned element type,
 * read as it is; null when items is no such buffer. */
template <class T>
struct typed_buffer {
    Py_buffer view{};
    bool held = false;
    explicit typed_buffer(py::handle items)
    {
        if (PyUnicode_Check(items.ptr()) || PyBytes_Check(items.ptr()) || !PyObject_CheckBuffer(items.ptr())) return;
        if (PyObject_GetBuffer(items.ptr(), &view, PyBUF_FORMAT | PyBUF_C_CONTIGUOUS) != 0) {
            PyErr_Clear();
            return;
        }
        held = true;
        const std::string_view f = view.format ? view.format : "B";
        const char code = f.empty() ? 'B' : f.back();
        const bool unsigned_int = code == 'B' || code == 'H' || code == 'I' || code == 'L' || code == 'Q';
        if (!unsigned_int || view.itemsize != static_cast<Py_ssize_t>(sizeof(T))) release();
    }
    ~typed_buffer() { release(); }
    void release()
    {
        if (held) PyBuffer_Release(&view);
        held = false;
    }
    const T *data() const { return held ? static_cast<const T *>(view.buf) : nullptr; }
    std::size_t size() const { return held ? static_cast<std::size_t>(view.len / view.itemsize) : 0; }
};

/* ---- the pattern ------------------------------------------------------------------ */

class pattern {
public:
    static std::shared_ptr<pattern> open(const py::object &path)
    {
        auto p = std::make_shared<pattern>();
        p->source_ = fspath(path);
        p->load("Pattern", [&h = p->holder_, &file = p->source_] { return h.try_load(file); });
        return p;
    }
    static std::shared_ptr<pattern> from_dir(const py::object &dir, const py::object &prefix)
    {
        auto p = std::make_shared<pattern>();
        p->source_ = fspath(dir);
        p->prefix_ = py::cast<std::string>(prefix);
        p->dir_ = true;
        p->load("Pattern.from_dir", [&h = p->holder_, &d = p->source_, &pre = p->prefix_] {
            return h.try_load_dir(d, pre);
        });
        return p;
    }

    taze::snapshot current() const { return holder_.current(); }

    /* Reads the file again (or the newest good file of the directory); on
     * failure the pattern that was loaded keeps answering. */
    py::object reload()
    {
        return load("Pattern.reload", [&h = holder_] { return h.try_reload(); });
    }
    /* The ReloadReport of the last load or reload, failed or not. */
    py::object last_report() const { return last_report_ ? last_report_ : py::none(); }

    /* ---- lists ---- */
    bool search(taze::list_kind lk, int idx, py::handle key, int k, const char *op) const
    {
        const std::string_view s = text_of(key, op);
        std::optional<bool> r;
        {
            py::gil_scoped_release nogil;
            r = current()->search(lk, idx, s.data(), static_cast<taze::kind>(k));
        }
        return value_or_refuse(r, op);
    }
    py::object search_many(taze::list_kind lk, int idx, py::handle items, int k, const py::object &np,
                           const char *op) const
    {
        const py::object seq = fast_sequence(items);
        const Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
        PyObject **objs = PySequence_Fast_ITEMS(seq.ptr());
        std::vector<const char *> keys(static_cast<std::size_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) keys[static_cast<std::size_t>(i)] = text_of(objs[i], op).data();
        bool_results out(keys.size(), np);
        bool ok = true;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot snap = current();
            const auto &q = *snap;
            const auto kind = static_cast<taze::kind>(k);
            unsigned char *res = out.data();
            for (std::size_t i = 0; i < keys.size() && ok; ++i) {
                const std::optional<bool> r = q.search(lk, idx, keys[i], kind);
                ok = r.has_value();
                res[i] = r.value_or(false);
            }
        }
        if (!ok || (keys.empty() && !current()->search(lk, idx, "", static_cast<taze::kind>(k)))) refused(op);
        return out.take();
    }

    template <class Value, class Convert, class Ask>
    bool range(int idx, py::handle v, Convert convert, Ask ask, const char *op) const
    {
        const Value value = convert(v);
        std::optional<bool> r;
        {
            py::gil_scoped_release nogil;
            r = ask(*current(), idx, value);
        }
        return value_or_refuse(r, op);
    }
    template <class Value, class Convert, class Ask>
    py::object range_many(int idx, py::handle items, Convert convert, Ask ask, const py::object &np,
                          const char *op) const
    {
        std::vector<Value> owned;
        const Value *values = nullptr;
        std::size_t n = 0;
        typed_buffer<Value> buf(items);
        if (buf.data()) {
            values = buf.data();
            n = buf.size();
        } else {
            const py::object seq = fast_sequence(items);
            n = static_cast<std::size_t>(PySequence_Fast_GET_SIZE(seq.ptr()));
            PyObject **objs = PySequence_Fast_ITEMS(seq.ptr());
            owned.reserve(n);
            for (std::size_t i = 0; i < n; ++i) owned.push_back(convert(objs[i]));
            values = owned.data();
        }
        bool_results out(n, np);
        bool ok = true;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot snap = current();
            unsigned char *res = out.data();
            for (std::size_t i = 0; i < n && ok; ++i) {
                const std::optional<bool> r = ask(*snap, idx, values[i]);
                ok = r.has_value();
                res[i] = r.value_or(false);
            }
            if (n == 0) ok = ask(*snap, idx, Value{}).has_value();
        }
        if (!ok) refused(op);
        return out.take();
    }

    py::list entries(int idx, int k) const
    {
        const taze::snapshot snap = current();
        const auto l = value_or_refuse(snap.string_list(idx, static_cast<taze::kind>(k)), "Pattern.entries");
        py::list out;
        for (std::string_view s : *l) out.append(to_str(s));
        return out;
    }

    /* ---- rules, protocols, risk ---- */
    py::object rule(std::uint32_t id, const py::object &kind) const
    {
        const auto k = kind_of(kind);
        std::optional<std::string> desc, risk;
        std::optional<unsigned> group, cl, threat;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot s = current();
            desc = s->rule_id_desc(id);
            risk = s->rule_id_risk(id, k);
            group = s->rule_id_risk_group(id, k);
            cl = s->rule_id_cl(id, k);
            threat = s->threat_type(id, k);
        }
        if (!risk || !group || !cl || !threat) refused("Pattern.rule");
        return types->rule(id, to_str(desc), to_str(risk), *group, *cl, *threat);
    }
    py::object rule_at(unsigned index, const py::object &kind) const
    {
        const auto k = kind_of(kind);
        std::optional<std::string> desc, risk;
        std::optional<unsigned> id, group, cl, enable;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot s = current();
            desc = s->rule_index_desc(index, k);
            risk = s->rule_index_risk(index, k);
            id = s->rule_index_rule_id(index, k);
            group = s->rule_index_risk_group(index, k);
            cl = s->rule_index_cl(index, k);
            enable = s->rule_index_enable(index, k);
        }
        if (!desc) return py::none();
        return types->rule_at(index, id.value_or(0), to_str(desc), to_str(risk), group.value_or(0), cl.value_or(0),
                              enable.value_or(0) != 0);
    }
    unsigned rule_count(const py::object &kind) const
    {
        const auto k = kind_of(kind);
        return value_or_refuse(current()->rule_count(k), "Pattern.rule_count");
    }
    py::list rules(const py::object &kind) const
    {
        py::list out;
        const unsigned n = rule_count(kind);
        for (unsigned i = 0; i < n; ++i) out.append(rule_at(i, kind));
        return out;
    }

    py::object check_rule_clean(std::uint32_t id, py::handle protocol, py::handle direction,
                                const py::object &kind) const
    {
        const auto k = kind_of(kind);
        const unsigned p = u32_of(protocol), d = direction_of(direction);
        std::optional<taze::clean_check> c;
        {
            py::gil_scoped_release nogil;
            c = current()->check_rule_clean(id, p, d, k);
        }
        return c ? types->clean_check(c->clean, c->target) : py::none();
    }
    py::object check_clean_info(py::handle protocol, py::handle direction, const py::object &kind) const
    {
        const auto k = kind_of(kind);
        const unsigned p = u32_of(protocol), d = direction_of(direction);
        std::optional<taze::clean_check> c;
        {
            py::gil_scoped_release nogil;
            c = current()->check_clean_info(p, d, k);
        }
        return c ? types->clean_check(c->clean, c->target) : py::none();
    }
    template <class Ask>
    py::object clean(Ask ask) const
    {
        std::optional<taze::clean_data> c;
        {
            py::gil_scoped_release nogil;
            c = ask(*current());
        }
        return c ? types->clean(c->priority, to_str(std::string_view(c->src)), to_str(std::string_view(c->dst))) : py::none();
    }

    py::object protocol(std::uint32_t id) const
    {
        std::optional<std::string> desc;
        std::optional<unsigned> group;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot s = current();
            desc = s->protocol_id_desc(id);
            group = s->protocol_id_group_id(id);
        }
        if (!desc) return py::none();
        return types->protocol(id, to_str(desc), group.value_or(0));
    }
    py::list protocols() const
    {
        py::list out;
        const taze::snapshot s = current();
        const unsigned n = value_or_refuse(s->protocol_count(), "Pattern.protocols");
        for (unsigned i = 0; i < n; ++i) {
            out.append(types->protocol(s->protocol_index_id(i).value_or(0), to_str(s->protocol_index_desc(i)),
                                       s->protocol_index_group_id(i).value_or(0)));
        }
        return out;
    }
    py::object protocol_group(std::uint32_t id) const
    {
        const taze::snapshot s = current();
        const auto desc = s->protocol_group_id_desc(id);
        if (!desc) return py::none();
        py::list members;
        const unsigned n = s->protocol_group_id_protocol_count(id).value_or(0);
        for (unsigned j = 0; j < n; ++j) members.append(s->protocol_group_id_protocol(id, j).value_or(0));
        return types->protocol_group(id, to_str(desc), py::tuple(members));
    }
    py::list protocol_groups() const
    {
        py::list out;
        const taze::snapshot s = current();
        const unsigned n = value_or_refuse(s->protocol_group_count(), "Pattern.protocol_groups");
        for (unsigned i = 0; i < n; ++i) {
            py::list members;
            const unsigned m = s->protocol_group_index_protocol_count(i).value_or(0);
            for (unsigned j = 0; j < m; ++j) members.append(s->protocol_group_index_protocol(i, j).value_or(0));
            out.append(types->protocol_group(s->protocol_group_index_id(i).value_or(0),
                                             to_str(s->protocol_group_index_desc(i)), py::tuple(members)));
        }
        return out;
    }
    template <class Ask>
    py::object risk(Ask ask) const
    {
        std::optional<taze::risk_info> r;
        {
            py::gil_scoped_release nogil;
            r = ask(*current());
        }
        return r ? types->risk(r->policy_id, r->severity) : py::none();
    }
    unsigned threat_type(std::uint32_t rule_id, const py::object &kind) const
    {
        const auto k = kind_of(kind);
        std::optional<unsigned> t;
        {
            py::gil_scoped_release nogil;
            t = current()->threat_type(rule_id, k);
        }
        return value_or_refuse(t, "Pattern.threat_type");
    }

    /* ---- versions and the rest ---- */
    py::object pattern_version() const { return to_str(current()->pattern_version()); }
    py::object compiler_version() const { return to_str(current()->compiler_version()); }
    py::object ulm_info() const
    {
        const taze::snapshot s = current();
        const auto info = s.ulm_info();
        return info ? py::object(to_str(**info)) : py::none();
    }
    py::object raw_pattern() const
    {
        const taze::snapshot s = current();
        const auto raw = s.raw_pattern();
        if (!raw) return py::none();
        return py::bytes(reinterpret_cast<const char *>((*raw)->data()), (*raw)->size());
    }
    std::string repr() const
    {
        const auto v = current()->pattern_version();
        return "<taze.Pattern " + std::string(py::repr(py::str(source_))) + (dir_ ? " prefix " + prefix_ : "") +
               " version " + v.value_or("?") + ">";
    }

private:
    static std::string fspath(const py::object &p)
    {
        const py::object s = py::module_::import("os").attr("fsdecode")(p);
        return py::cast<std::string>(s);
    }
    /* Runs one load of the holder and keeps its report; raises the load's
     * error with the report attached. Loads of one pattern are serialised
     * here, so that the report and the versions are those of this load. */
    template <class Load>
    py::object load(const char *op, Load &&run)
    {
        std::optional<std::string> before;
        std::error_code ec;
        taze::load_report r;
        {
            py::gil_scoped_release nogil;
            const std::lock_guard<std::mutex> lock(loading_);
            before = holder_.current()->pattern_version();
            ec = run();
            r = holder_.last_report();
        }
        if (ec && r.result != ec.value()) {
            /* It failed before it loaded anything (no memory): the holder's
             * report is still the previous one. */
            r = taze::load_report();
            r.result = ec.value();
        }
        last_report_ = report_object(r, before);
        if (ec) raise_code(ec.value(), op, last_report_);
        return last_report_;
    }
    py::object report_object(const taze::load_report &r, const std::optional<std::string> &before) const
    {
        using reason = taze::candidates::reason;
        py::list entries;
        for (const taze::candidate_report &e : r.entries) {
            const bool numbered = e.reason != reason::path_too_long && e.reason != reason::not_regular_file &&
                                  e.reason != reason::prefix_mismatch;
            const bool versioned = e.reason == reason::version_mismatch || e.reason == reason::candidate ||
                                   e.reason == reason::loaded || e.reason == reason::load_failed ||
                                   e.reason == reason::not_tried;
            entries.append(py::make_tuple(to_str(std::string_view(e.name)), taze::candidates::reason_name(e.reason),
                                          numbered ? py::object(py::int_(e.number)) : py::none(),
                                          versioned ? py::object(py::int_(e.version)) : py::none(), e.result));
        }
        const bool loaded = r.result == 0 && !r.path.empty();
        return types->reload_report.attr("_make")(
            source_, loaded ? py::object(py::int_(r.version)) : py::none(), to_str(before),
            loaded ? py::object(to_str(std::string_view(r.path))) : py::none(), r.result, r.scan_result, entries);
    }

    taze::reloading_handle holder_;
    std::mutex loading_;
    py::object last_report_;
    std::string source_, prefix_;
    bool dir_ = false;
};

/* ---- maps ---------------------------------------------------------------------- */

template <class T>
struct py_convert;
template <>
struct py_convert<taze::zstr> {
    using held = std::string_view;
    static held in(py::handle o) { return text_of(o, "map"); }
    static const char *arg(held h) { return h.data(); }
};
template <>
struct py_convert<std::uint32_t> {
    using held = std::uint32_t;
    static held in(py::handle o) { return u32_of(o); }
    static held arg(held h) { return h; }
};
template <>
struct py_convert<taze::ipv6> {
    using held = taze::ipv6;
    static held in(py::handle o) { return ipv6_of(o); }
    static const held &arg(const held &h) { return h; }
};

py::object out_value(std::string_view s) { return to_str(s); }
py::object out_value(std::uint32_t v) { return py::int_(v); }
py::object out_value(const taze::ipv6 &a) { return ipv6_object(a); }

class map_view {
public:
    virtual ~map_view() = default;
    virtual py::object get(py::handle key) const = 0;
    virtual int answer(py::handle key, py::handle value) const = 0;
    virtual std::size_t size() const = 0;
    virtual py::object at(std::size_t index) const = 0;
    py::object entry(py::ssize_t index) const
    {
        const auto n = static_cast<py::ssize_t>(size());
        if (index < 0) index += n;
        if (index < 0 || index >= n) throw py::index_error("map entry index out of range");
        return at(static_cast<std::size_t>(index));
    }
    py::list items() const
    {
        py::list out;
        const std::size_t n = size();
        for (std::size_t i = 0; i < n; ++i) out.append(at(i));
        return out;
    }
};

template <class Family>
class map_of final : public map_view {
public:
    map_of(std::shared_ptr<const pattern> p, int map_type, int magic, taze::kind k)
        : p_(std::move(p)), type_(map_type), magic_(magic), kind_(k)
    {
    }
    py::object get(py::handle key) const override
    {
        const auto k = py_convert<typename Family::key_type>::in(key);
        const taze::snapshot s = p_->current();
        std::optional<typename decltype(s.template map<Family>(0))::result> r;
        {
            py::gil_scoped_release nogil;
            r = s.template map<Family>(magic_, type_, kind_).find(py_convert<typename Family::key_type>::arg(k));
        }
        if (!r) return py::none();
        return values_of(*r);
    }
    int answer(py::handle key, py::handle value) const override
    {
        const auto k = py_convert<typename Family::key_type>::in(key);
        const auto v = py_convert<typename Family::value_type>::in(value);
        std::optional<taze::map_answer> r;
        {
            py::gil_scoped_release nogil;
            const taze::snapshot s = p_->current();
            r = s.template map<Family>(magic_, type_, kind_)
                    .contains(py_convert<typename Family::key_type>::arg(k),
                              py_convert<typename Family::value_type>::arg(v));
        }
        return static_cast<int>(value_or_refuse(r, "Map.answer"));
    }
    std::size_t size() const override
    {
        const taze::snapshot s = p_->current();
        return value_or_refuse(s.template map<Family>(magic_, type_, kind_).size(), "Map.__len__");
    }
    py::object at(std::size_t index) const override
    {
        const taze::snapshot s = p_->current();
        const auto r = s.template map<Family>(magic_, type_, kind_).at(index);
        if (!r) throw py::index_error("map entry index out of range");
        return types->map_entry(out_value((*r)->key), values_of(*r));
    }

private:
    template <class R>
    static py::tuple values_of(const R &r)
    {
        py::list vals;
        for (auto v : r->values) vals.append(out_value(v));
        return py::tuple(vals);
    }

    std::shared_ptr<const pattern> p_;
    int type_, magic_;
    taze::kind kind_;
};

/* Families by the map kinds of the pattern source ("suffix_to_int", ...) or
 * by family name with an explicit map type. */
std::unique_ptr<map_view> make_map(std::shared_ptr<const pattern> p, const std::string &name, int magic,
                                   std::optional<int> map_type, taze::kind k)
{
    static constexpr std::pair<const char *, int> rules[] = {
        {"exact", 0}, {"prefix", 1}, {"suffix", 2}, {"substring", 3}};
    const auto rule_of = [](std::string_view w) -> std::optional<int> {
        for (const auto &r : rules) {
            if (w == r.first) return r.second;
        }
        return std::nullopt;
    };
    const auto same = [](int r) { return r * 257; }; /* MT_PREFIX = 257, ... */
    std::string family = name;
    int type = map_type.value_or(0);
    const auto sep = name.find("_to_");
    if (sep != std::string::npos) {
        const std::string key = name.substr(0, sep), value = name.substr(sep + 4);
        const auto kr = rule_of(key), vr = rule_of(value);
        if (kr && value == "int") family = "str_int", type = same(*kr);
        else if (kr && value == "ipv6") family = "str_ipv6", type = same(*kr);
        else if (kr && vr) family = "str_str", type = (*kr << 8) | *vr;
        else if (key == "int" && value == "int") family = "int_int";
        else if (key == "int" && vr) family = "int_str", type = same(*vr);
        else if (key == "ipv6" && value == "int") family = "ipv6_int";
        else throw py::value_error("unknown map kind: " + name);
        if (map_type) type = *map_type;
    }
    if (family == "str_int") return std::make_unique<map_of<taze::maps::str_int>>(p, type, magic, k);
    if (family == "str_ipv6") return std::make_unique<map_of<taze::maps::str_ipv6>>(p, type, magic, k);
    if (family == "ipv6_int") return std::make_unique<map_of<taze::maps::ipv6_int>>(p, type, magic, k);
    if (family == "int_int") return std::make_unique<map_of<taze::maps::int_int>>(p, type, magic, k);
    if (family == "int_str") return std::make_unique<map_of<taze::maps::int_str>>(p, type, magic, k);
    if (family == "str_str") return std::make_unique<map_of<taze::maps::str_str>>(p, type, magic, k);
    throw py::value_error("unknown map kind: " + name);
}

/* ---- bindings -------------------------------------------------------------------- */

using pattern_class = py::class_<pattern, std::shared_ptr<pattern>>;

void bind_lists(pattern_class &c)
{
    static constexpr std::pair<const char *, taze::list_kind> kinds[] = {
        {"exact", taze::list_kind::exact},
        {"prefix", taze::list_kind::prefix},
        {"suffix", taze::list_kind::suffix},
        {"substring", taze::list_kind::substring},
        {"exact_case", taze::list_kind::exact_case},
        {"prefix_case", taze::list_kind::prefix_case},
        {"suffix_case", taze::list_kind::suffix_case},
        {"substring_case", taze::list_kind::substring_case},
    };
    for (const auto &[name, lk] : kinds) {
        const taze::list_kind list = lk;
        const std::string single = name, many = std::string(name) + "_many";
        const char *op = name;
        c.def(
            single.c_str(),
            [list, op](const pattern &p, int idx, py::handle key, int kind) { return p.search(list, idx, key, kind, op); },
            py::arg("list"), py::arg("key"), py::arg("kind") = 0);
        c.def(
            many.c_str(),
            [list, op](const pattern &p, int idx, py::handle keys, int kind, const py::object &np) {
                return p.search_many(list, idx, keys, kind, np, op);
            },
            py::arg("list"), py::arg("keys"), py::arg("kind") = 0, py::kw_only(), py::arg("numpy") = py::none());
    }

    const auto ask_ip = [](const taze::queries &q, int idx, std::uint32_t v) { return q.in_ip_range(idx, v); };
    const auto ask_ipv6 = [](const taze::queries &q, int idx, const taze::ipv6 &v) { return q.in_ipv6_range(idx, v); };
    const auto ask_port = [](const taze::queries &q, int idx, std::uint16_t v) { return q.in_port_range(idx, v); };
    c.def("ipv4", [=](const pattern &p, int idx, py::handle a) {
        return p.range<std::uint32_t>(idx, a, ipv4_of, ask_ip, "ipv4");
    }, py::arg("list"), py::arg("address"));
    c.def("ipv6", [=](const pattern &p, int idx, py::handle a) {
        return p.range<taze::ipv6>(idx, a, ipv6_of, ask_ipv6, "ipv6");
    }, py::arg("list"), py::arg("address"));
    c.def("port", [=](const pattern &p, int idx, py::handle a) {
        return p.range<std::uint16_t>(idx, a, port_of, ask_port, "port");
    }, py::arg("list"), py::arg("port"));
    c.def("ipv4_many", [=](const pattern &p, int idx, py::handle a, const py::object &np) {
        return p.range_many<std::uint32_t>(idx, a, ipv4_of, ask_ip, np, "ipv4_many");
    }, py::arg("list"), py::arg("addresses"), py::kw_only(), py::arg("numpy") = py::none());
    c.def("ipv6_many", [=](const pattern &p, int idx, py::handle a, const py::object &np) {
        return p.range_many<taze::ipv6>(idx, a, ipv6_of, ask_ipv6, np, "ipv6_many");
    }, py::arg("list"), py::arg("addresses"), py::kw_only(), py::arg("numpy") = py::none());
    c.def("port_many", [=](const pattern &p, int idx, py::handle a, const py::object &np) {
        return p.range_many<std::uint16_t>(idx, a, port_of, ask_port, np, "port_many");
    }, py::arg("list"), py::arg("ports"), py::kw_only(), py::arg("numpy") = py::none());
    c.def("entries", &pattern::entries, py::arg("list"), py::arg("kind") = 0,
          "The strings of exact list `list`, in stored order.");
}

void bind_rules(pattern_class &c)
{
    const auto none = py::none();
    c.def("rule", &pattern::rule, py::arg("id"), py::arg("kind") = none);
    c.def("rule_at", &pattern::rule_at, py::arg("index"), py::arg("kind") = none);
    c.def("rule_count", &pattern::rule_count, py::arg("kind") = none);
    c.def("rules", &pattern::rules, py::arg("kind") = none);
    c.def("check_rule_clean", &pattern::check_rule_clean, py::arg("id"), py::arg("protocol"),
          py::arg("direction") = 1, py::arg("kind") = none);
    c.def("rule_clean", [](const pattern &p, std::uint32_t id, const py::object &kind) {
        const auto k = kind_of(kind);
        return p.clean([&](const taze::queries &q) { return q.rule_clean(id, k); });
    }, py::arg("id"), py::arg("kind") = none);
    c.def("check_clean_info", &pattern::check_clean_info, py::arg("protocol"), py::arg("direction") = 1,
          py::arg("kind") = none);
    c.def("clean_info", [](const pattern &p, std::uint32_t protocol, const py::object &kind) {
        const auto k = kind_of(kind);
        return p.clean([&](const taze::queries &q) { return q.clean_info(protocol, k); });
    }, py::arg("protocol"), py::arg("kind") = none);
    c.def("protocol", &pattern::protocol, py::arg("id"));
    c.def("protocols", &pattern::protocols);
    c.def("protocol_group", &pattern::protocol_group, py::arg("id"));
    c.def("protocol_groups", &pattern::protocol_groups);
    c.def("known_risk", [](const pattern &p, py::handle direction, std::uint32_t protocol, const py::object &kind) {
        const auto k = kind_of(kind);
        const unsigned d = direction_of(direction);
        return p.risk([&](const taze::queries &q) { return q.known_risk(d, protocol, k); });
    }, py::arg("direction"), py::arg("protocol"), py::arg("kind") = none);
    c.def("potential_risk", [](const pattern &p, std::uint32_t rule, py::handle direction, std::uint32_t protocol,
                               const py::object &kind) {
        const auto k = kind_of(kind);
        const unsigned d = direction_of(direction);
        return p.risk([&](const taze::queries &q) { return q.potential_risk(rule, d, protocol, k); });
    }, py::arg("rule_id"), py::arg("direction"), py::arg("protocol"), py::arg("kind") = none);
    c.def("threat_type", &pattern::threat_type, py::arg("rule_id"), py::arg("kind") = none);
}

} // namespace

PYBIND11_MODULE(taze, m)
{
    m.doc() = "Queries on taze pattern files: lists, ranges, maps, rules, protocols, risk and threat types.";
    py::exec(kPythonPart, m.attr("__dict__"));
    types = new python_types;
    types->error = m.attr("Error");
    types->errors_by_code = m.attr("_errors_by_code");
    types->rule = m.attr("Rule");
    types->rule_at = m.attr("RuleAt");
    types->clean_check = m.attr("CleanCheck");
    types->clean = m.attr("Clean");
    types->protocol = m.attr("Protocol");
    types->protocol_group = m.attr("ProtocolGroup");
    types->risk = m.attr("Risk");
    types->map_entry = m.attr("MapEntry");
    types->reload_report = m.attr("ReloadReport");
    const py::module_ ipaddress = py::module_::import("ipaddress");
    types->ipv4_address = ipaddress.attr("IPv4Address");
    types->ipv6_address = ipaddress.attr("IPv6Address");
    types->numpy_empty = py::none();
    types->numpy_bool = py::none();

    py::class_<map_view>(m, "Map", "One map list: get(key), contains(key, value), len(), [index], iteration.")
        .def("get", &map_view::get, py::arg("key"), "The values of key as a tuple, or None.")
        .def("answer", &map_view::answer, py::arg("key"), py::arg("value"),
             "The library's answer: 1 key maps to value, 0 value not among the key's, -1 key not found.")
        .def("contains", [](const map_view &v, py::handle k, py::handle val) { return v.answer(k, val) == 1; },
             py::arg("key"), py::arg("value"))
        .def("__len__", &map_view::size)
        .def("__getitem__", &map_view::entry, py::arg("index"))
        .def("items", &map_view::items)
        .def("__iter__", [](const map_view &v) { return py::iter(v.items()); });

    pattern_class c(m, "Pattern", "A loaded pattern file.");
    c.def(py::init(&pattern::open), py::arg("path"))
        .def_static("from_dir", &pattern::from_dir, py::arg("dir"), py::arg("prefix"),
                    "The newest good file DIR/PREFIX<version>.ptn.")
        .def("reload", &pattern::reload,
             "Loads again; returns a ReloadReport, or raises Error (with the report) and keeps the old pattern.")
        .def_property_readonly("last_report", &pattern::last_report,
                               "The ReloadReport of the last load or reload, failed or not.")
        .def_property_readonly("pattern_version", &pattern::pattern_version)
        .def_property_readonly("compiler_version", &pattern::compiler_version)
        .def_property_readonly("ulm_info", &pattern::ulm_info)
        .def_property_readonly("raw_pattern", &pattern::raw_pattern)
        .def("map", [](const std::shared_ptr<pattern> &p, const std::string &kind_name, int magic,
                       std::optional<int> map_type, int kind) {
            return make_map(p, kind_name, magic, map_type, static_cast<taze::kind>(kind));
        }, py::arg("name"), py::arg("magic") = 0, py::arg("map_type") = py::none(), py::arg("kind") = 0,
             "Map list `magic` of a map kind of the pattern source (\"suffix_to_int\", ...) or of a family "
             "(str_int, str_ipv6, ipv6_int, int_int, int_str, str_str) with map_type.")
        .def("__repr__", &pattern::repr);
    bind_lists(c);
    bind_rules(c);

    m.def("peek_version", [](const py::object &path) {
        const std::string p = py::cast<std::string>(py::module_::import("os").attr("fsdecode")(path));
        std::string v;
        const std::error_code ec = taze::try_peek_version(p, v);
        if (ec) raise_code(ec.value(), "peek_version");
        return v;
    }, py::arg("path"), "The version text of a pattern file, without loading it.");
    m.def("set_debug_level", [](const std::string &level) {
        static constexpr std::pair<const char *, taze::debug_level> levels[] = {
            {"off", taze::debug_level::off}, {"error", taze::debug_level::error}, {"warn", taze::debug_level::warn},
            {"info", taze::debug_level::info}, {"debug", taze::debug_level::debug}};
        for (const auto &[n, l] : levels) {
            if (level == n) return taze::set_debug_level(l);
        }
        throw py::value_error("debug level is off, error, warn, info or debug");
    }, py::arg("level"), "The library's process-wide diagnostic output on standard output.");
}
