#include "dbapi/framestream.h"

#include <cerrno>
#include <new>
#include <optional>
#include <string>

#include "dbapi/arrow.h"
// Behind Python.h, which it does not include.
#include <structmember.h>

namespace {

using Frame = std::shared_ptr<const FrameBatch>;
using Frames = std::vector<Frame>;
constexpr size_t kBatchRows = 65536;

// ---- what is handed over

// Owns what an exported structure points to, and gives each of several its own children.
template <class Structure>
struct Exported {
    std::vector<Structure> children;
    std::vector<Structure*> pointers;

    explicit Exported(size_t count) : children(count), pointers(count) {
        for (size_t i = 0; i < count; ++i) pointers[i] = &children[i];
    }
    ~Exported() {
        for (Structure& child : children) {
            if (child.release) child.release(&child);
        }
    }
    Exported(const Exported&) = delete;
    Exported& operator=(const Exported&) = delete;
};

struct ExportedArray : Exported<ArrowArray> {
    Frame batch;
    const void* buffers[3] = {};

    ExportedArray(Frame owned, size_t count) : Exported(count), batch(std::move(owned)) {}
};

struct ExportedSchema : Exported<ArrowSchema> {
    FrameField field;

    ExportedSchema(FrameField owned, size_t count) : Exported(count), field(std::move(owned)) {}
};

// What the structure has in `private_data`, given to it as its own.
template <class Owner, class Structure>
void Give(std::unique_ptr<Owner> owner, Structure* out) {
    out->n_children = static_cast<std::int64_t>(owner->children.size());
    out->children = owner->pointers.empty() ? nullptr : owner->pointers.data();
    out->private_data = owner.release();
    out->release = [](Structure* structure) {
        delete static_cast<Owner*>(structure->private_data);
        structure->release = nullptr;
    };
}

void ExportColumn(const Frame& batch, const FrameColumn& column, ArrowArray* out) {
    auto owner = std::make_unique<ExportedArray>(batch, 0);
    // Who gets no values must not get a null pointer for them.
    static const std::int64_t kNothing = 0;
    const auto address = [](const Buffer& buffer) -> const void* {
        return buffer.Size() > 0 ? buffer.As<char>() : reinterpret_cast<const char*>(&kNothing);
    };
    owner->buffers[0] = column.nulls > 0 ? column.validity.As<char>() : nullptr;
    owner->buffers[1] = address(column.values);
    owner->buffers[2] = address(column.bytes);
    *out = {};
    out->length = batch->rows;
    out->null_count = column.nulls;
    out->n_buffers = column.hasBytes ? 3 : 2;
    out->buffers = owner->buffers;
    Give(std::move(owner), out);
}

void ExportBatch(const Frame& batch, ArrowArray* out) {
    auto owner = std::make_unique<ExportedArray>(batch, batch->columns.size());
    for (size_t i = 0; i < batch->columns.size(); ++i)
        ExportColumn(batch, batch->columns[i], &owner->children[i]);
    *out = {};
    out->length = batch->rows;
    out->n_buffers = 1;
    out->buffers = owner->buffers;
    Give(std::move(owner), out);
}

void ExportField(const FrameField& field, const FrameSchema& children, ArrowSchema* out) {
    auto owner = std::make_unique<ExportedSchema>(field, children.size());
    for (size_t i = 0; i < children.size(); ++i) ExportField(children[i], {}, &owner->children[i]);
    *out = {};
    out->format = owner->field.format.c_str();
    out->name = owner->field.name.c_str();
    out->flags = children.empty() ? kArrowNullable : 0;
    Give(std::move(owner), out);
}

// ---- where batches come from

// The rest of a statement's rows.
class Reading {
  public:
    explicit Reading(size_t batchRows) : m_builder(batchRows) {}

    // The next batch, null behind the last. Under the interpreter lock.
    Frame Next(Link& link, Statement& statement) {
        const Link::Turn turn(link);
        link.Wait(statement.Handle(), [&] { statement.Fill(m_builder); });
        const bool isOver = m_builder.IsEmpty() && m_hasTypes;
        m_hasTypes = true;
        // Without any row there is one batch, which settles the types.
        return isOver ? nullptr : m_builder.Finish();
    }
    FrameSchema Schema() const { return m_builder.Schema(); }

  private:
    FrameBuilder m_builder;
    bool m_hasTypes = false;
};

class Source {
  public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual Frame Next() = 0;
};

// A result that was a cursor's. Failures are told again and again.
class ResultSource final : public Source {
  public:
    ResultSource(std::shared_ptr<Link> link, std::unique_ptr<Statement> statement, size_t batchRows)
        : m_link(std::move(link)), m_statement(std::move(statement)), m_reading(batchRows) {
        m_first = Read();
    }
    ~ResultSource() override { End(); }

    Frame Next() override { return m_first ? std::exchange(m_first, nullptr) : Read(); }
    FrameSchema Schema() const { return m_reading.Schema(); }

  private:
    Frame Read() {
        if (m_failure) throw *m_failure;
        if (!m_statement) return nullptr;
        m_failure.emplace("HY010", "The stream has failed before.");
        try {
            Frame batch = m_reading.Next(*m_link, *m_statement);
            if (!batch) End();
            m_failure.reset();
            return batch;
        } catch (const Failure& failure) {
            m_failure = failure;
            End();
            throw;
        } catch (...) {
            End();
            throw;
        }
    }
    void End() {
        if (m_statement) m_link->GiveBack(std::move(m_statement));
    }

    const std::shared_ptr<Link> m_link;
    std::unique_ptr<Statement> m_statement;
    Reading m_reading;
    Frame m_first;
    std::optional<Failure> m_failure;
};

class TableSource final : public Source {
  public:
    explicit TableSource(Frames batches) : m_batches(std::move(batches)) {}
    Frame Next() override { return m_next < m_batches.size() ? m_batches[m_next++] : nullptr; }

  private:
    const Frames m_batches;
    size_t m_next = 0;
};

// ---- the stream interface

// The interpreter lock, for whatever thread calls.
class Locked {
  public:
    Locked() : m_state(PyGILState_Ensure()) {}
    ~Locked() { PyGILState_Release(m_state); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    // A thread that waits for the lock of an interpreter that ends never comes back.
    static bool CanBeHad() {
#if PY_VERSION_HEX >= 0x030D0000
        const bool isEnding = Py_IsFinalizing();
#else
        const bool isEnding = _Py_IsFinalizing();
#endif
        return Py_IsInitialized() && (!isEnding || PyGILState_Check());
    }

  private:
    const PyGILState_STATE m_state;
};

struct Stream {
    std::unique_ptr<Source> source;
    std::shared_ptr<const FrameSchema> schema;
    std::string error;
};

// The words of the Python error that is set, which is cleared.
std::string TakeError() {
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    PyErr_NormalizeException(&type, &value, &trace);
    const PyRef owned[] = {PyRef(type), PyRef(value), PyRef(trace)};
    const PyRef text(value ? PyObject_Repr(value) : nullptr);
    const char* const words = text ? PyUnicode_AsUTF8(text.Get()) : nullptr;
    PyErr_Clear();
    return words ? words : "The stream was interrupted.";
}

template <class Body>
int Called(ArrowArrayStream* stream, Body&& body) noexcept {
    if (!Locked::CanBeHad()) return EIO;
    const Locked locked;
    auto& self = *static_cast<Stream*>(stream->private_data);
    try {
        self.error.clear();
        try {
            body(self);
            return 0;
        } catch (const Failure& failure) {
            self.error = failure.Records().front().words;
            return EIO;
        } catch (const PythonError&) {
            self.error = TakeError();
            return EINTR;
        }
    } catch (...) {
        return ENOMEM;
    }
}

int GetSchema(ArrowArrayStream* stream, ArrowSchema* out) noexcept {
    return Called(stream, [&](const Stream& self) { ExportField({"", "+s"}, *self.schema, out); });
}

int GetNext(ArrowArrayStream* stream, ArrowArray* out) noexcept {
    return Called(stream, [&](const Stream& self) {
        const Frame batch = self.source->Next();
        if (batch) {
            ExportBatch(batch, out);
        } else {
            *out = {};
        }
    });
}

const char* GetLastError(ArrowArrayStream* stream) noexcept {
    const auto& error = static_cast<Stream*>(stream->private_data)->error;
    return error.empty() ? nullptr : error.c_str();
}

void ReleaseStream(ArrowArrayStream* stream) noexcept {
    stream->release = nullptr;
    // When the interpreter ends the connection is closed by the process's end.
    if (!Locked::CanBeHad()) return;
    const Locked locked;
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    delete static_cast<Stream*>(stream->private_data);
    PyErr_Restore(type, value, trace);
}

// A capsule that owns a structure, which whoever takes it may clear.
template <class Structure, class Fill>
PyRef MakeCapsule(const char* name, Fill&& fill) {
    auto structure = std::make_unique<Structure>();
    fill(*structure);
    PyObject* const capsule = PyCapsule_New(structure.get(), name, [](PyObject* dropped) {
        const std::unique_ptr<Structure> owned(
            static_cast<Structure*>(PyCapsule_GetPointer(dropped, PyCapsule_GetName(dropped))));
        if (owned && owned->release) owned->release(owned.get());
    });
    if (!capsule) {
        structure->release(structure.get());
        throw PythonError();
    }
    static_cast<void>(structure.release());
    return PyRef(capsule);
}

// ---- the Python types

struct FrameFields {
    PyObject ob_base;
    Py_ssize_t rows;
};

struct FrameObject : FrameFields {
    std::unique_ptr<Source> source;  // of a stream, until it is handed over
    std::shared_ptr<const FrameSchema> schema;
    Frames batches;  // of a table
};

FrameObject* Self(PyObject* object) {
    return reinterpret_cast<FrameObject*>(object);
}

PyRef NewFrame(PyTypeObject& type, FrameSchema schema) {
    PyRef object = Checked(type.tp_alloc(&type, 0));
    FrameObject* const self = Self(object.Get());
    new (&self->source) std::unique_ptr<Source>();
    new (&self->schema) std::shared_ptr<const FrameSchema>();
    new (&self->batches) Frames();
    self->schema = std::make_shared<const FrameSchema>(std::move(schema));
    return object;
}

void Dealloc(PyObject* object) {
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    FrameObject* const self = Self(object);
    self->source.~unique_ptr();
    self->schema.~shared_ptr();
    self->batches.~vector();
    PyErr_Restore(type, value, trace);
    Py_TYPE(object)->tp_free(object);
}

PyObject* MakeStream(PyObject* object, PyObject* args, PyObject* keywords) {
    return AtBoundary<PyObject*>(nullptr, [&]() -> PyObject* {
        static const char* const kNames[] = {"requested_schema", nullptr};
        PyObject* requested = nullptr;  // which is a wish
        if (!PyArg_ParseTupleAndKeywords(args, keywords, "|O", const_cast<char**>(kNames),
                                         &requested))
            return nullptr;
        FrameObject* const self = Self(object);
        const bool isTable = Py_TYPE(object) == &ArrowTableType;
        if (!isTable && !self->source) {
            throw Failure("HY010",
                          "The stream has been handed over, and gives its rows once; "
                          "fetch_arrow_all() makes a table.");
        }
        return MakeCapsule<ArrowArrayStream>(
                   kStreamCapsule,
                   [&](ArrowArrayStream& stream) {
                       auto made = std::make_unique<Stream>();
                       made->schema = self->schema;
                       made->source = isTable ? std::make_unique<TableSource>(self->batches)
                                              : std::move(self->source);
                       stream = {GetSchema, GetNext, GetLastError, ReleaseStream, made.release()};
                   })
            .Release();
    });
}

PyObject* MakeSchema(PyObject* object, PyObject*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        return MakeCapsule<ArrowSchema>(kSchemaCapsule,
                                        [&](ArrowSchema& schema) {
                                            ExportField({"", "+s"}, *Self(object)->schema, &schema);
                                        })
            .Release();
    });
}

PyObject* ColumnNames(PyObject* object, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        const FrameSchema& schema = *Self(object)->schema;
        PyRef names = Checked(PyTuple_New(static_cast<Py_ssize_t>(schema.size())));
        Py_ssize_t index = 0;
        for (const FrameField& field : schema) {
            PyTuple_SET_ITEM(names.Get(), index++,
                             Checked(PyUnicode_FromString(field.name.c_str())).Release());
        }
        return names.Release();
    });
}

PyMethodDef Methods[] = {
    {"__arrow_c_stream__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(MakeStream)),
     METH_VARARGS | METH_KEYWORDS,
     "__arrow_c_stream__($self, /, requested_schema=None)\n--\n\nThe rows, as a capsule of Arrow's "
     "stream interface."},
    {"__arrow_c_schema__", MakeSchema, METH_NOARGS,
     "__arrow_c_schema__($self, /)\n--\n\nThe columns, as a capsule of Arrow's data interface."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef Properties[] = {
    {"column_names", ColumnNames, nullptr, "The names of the columns.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef TableMembers[] = {
    {"num_rows", T_PYSSIZET, offsetof(FrameFields, rows), READONLY, "The number of rows."},
    {nullptr, 0, 0, 0, nullptr},
};

Py_ssize_t Length(PyObject* object) {
    return Self(object)->rows;
}

PySequenceMethods TableSequence = {.sq_length = Length};

}  // namespace

PyRef FetchArrow(CursorObject* self, Statement&, size_t batchRows) {
    auto source = std::make_unique<ResultSource>(self->link, std::move(self->statement), batchRows);
    PyRef object = NewFrame(ArrowStreamType, source->Schema());
    Self(object.Get())->source = std::move(source);
    return object;
}

PyRef FetchArrowAll(CursorObject* self, Statement& statement) {
    Reading reading(kBatchRows);
    Frames batches;
    Py_ssize_t rows = 0;
    while (Frame batch = reading.Next(*self->link, statement)) {
        rows += static_cast<Py_ssize_t>(batch->rows);
        batches.push_back(std::move(batch));
    }
    PyRef object = NewFrame(ArrowTableType, reading.Schema());
    Self(object.Get())->batches = std::move(batches);
    Self(object.Get())->rows = rows;
    return object;
}

PyTypeObject ArrowStreamType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_name = "vorda._statement.ArrowStream",
    .tp_basicsize = sizeof(FrameObject),
    .tp_dealloc = Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_doc = "The rows of a result, for one that takes Arrow's streams.",
    .tp_methods = Methods,
    .tp_getset = Properties,
};

PyTypeObject ArrowTableType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_name = "vorda._statement.ArrowTable",
    .tp_basicsize = sizeof(FrameObject),
    .tp_dealloc = Dealloc,
    .tp_as_sequence = &TableSequence,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_doc = "All rows of a result, for any number that take Arrow's streams.",
    .tp_methods = Methods,
    .tp_members = TableMembers,
    .tp_getset = Properties,
};
