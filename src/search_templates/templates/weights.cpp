#include "templates/weights.hpp"

#include "common/py_helpers.hpp"
#include "templates/node_budget.hpp"

#include <cmath>

namespace quillmarsh::st {

namespace {

bool is_name_collection(py::handle h) {
    return PyList_Check(h.ptr()) || PyTuple_Check(h.ptr()) || PySet_Check(h.ptr()) || PyFrozenSet_Check(h.ptr());
}

// The attribute, or `dflt` when the object has none (AttributeError only).
py::object getattr_or(py::handle obj, const char* name, py::object dflt) { return attr_or(obj, name, std::move(dflt)); }

double safe_yield_rate_of(double value) {
    if (!std::isfinite(value)) return 0.0;
    if (value > RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE) return RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE;
    if (value < -1.0) return -1.0;
    return value;
}

py::object add(py::handle a, py::handle b) {
    PyObject* r = PyNumber_Add(a.ptr(), b.ptr());
    if (r == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(r);
}

}  // namespace

// ---- entries -----------------------------------------------------------------------------------------

bool AnalyticsEntryReader::start() {
    started_ = true;
    if (!truthy(analytics_)) return false;
    PyObject* rows = PyObject_GetAttrString(analytics_.ptr(), "rows");
    if (rows == nullptr) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
        PyErr_Clear();
        return false;
    }
    py::object rows_obj = py::reinterpret_steal<py::object>(rows);
    if (!truthy(rows_obj)) return false;
    PyObject* it = PyObject_GetIter(rows_obj.ptr());
    if (it == nullptr) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
        PyErr_Clear();
        return false;
    }
    iterator_ = py::reinterpret_steal<py::object>(it);
    return true;
}

bool AnalyticsEntryReader::next(AnalyticsEntry& out) {
    if (done_) return false;
    if (!started_ && !start()) {
        done_ = true;
        return false;
    }
    while (rows_read_ < RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS) {
        PyObject* raw = PyIter_Next(iterator_.ptr());
        if (raw == nullptr) {
            if (PyErr_Occurred()) throw py::error_already_set();
            break;
        }
        py::object row = py::reinterpret_steal<py::object>(raw);
        ++rows_read_;
        if (is_dict(row)) {
            py::object name = map_get(row, "name", py::str(""));
            if (!is_nonempty_str(name)) continue;
            out.yield_rate = random_weighted_float_value(map_get(row, "yield_rate", py::float_(0.0)), 0.0);
            out.evaluation_count = random_weighted_int(map_get(row, "evaluation_count", py::int_(0)), py::int_(0));
            bool feature = py_equal(map_get(row, "type", py::str("function")), py::str("feature"));
            out.function_names = py::list();
            out.feature_names = py::list();
            (feature ? out.feature_names : out.function_names).append(name);
            return true;
        }
        py::object group_key = attr_or(row, "group_key");
        py::object windows = attr_or(row, "windows");
        if (!truthy(group_key) || !truthy(windows)) continue;
        if (!(PyList_Check(group_key.ptr()) || PyTuple_Check(group_key.ptr())) || py::len(group_key) != 2) continue;
        py::object window;
        try {
            window = windows[py::int_(0)];
            out.yield_rate = random_weighted_float_value(getattr_or(window, "yield_rate", py::float_(0.0)), 0.0);
            out.function_names = random_weighted_valid_names(group_key[py::int_(0)]);
            out.feature_names = random_weighted_valid_names(group_key[py::int_(1)]);
        } catch (py::error_already_set& err) {
            if (error_matches(err, PyExc_IndexError) || error_matches(err, PyExc_KeyError) ||
                error_matches(err, PyExc_TypeError))
                continue;
            throw;
        }
        if (py::len(out.function_names) == 0 && py::len(out.feature_names) == 0) continue;
        // getattr(row, "evaluation_count", getattr(window, "evaluation_count", 0))
        py::object row_count;
        if (PyObject* v = PyObject_GetAttrString(row.ptr(), "evaluation_count")) {
            row_count = py::reinterpret_steal<py::object>(v);
        } else {
            if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
            PyErr_Clear();
            row_count = getattr_or(window, "evaluation_count", py::int_(0));
        }
        py::object count = random_weighted_int(row_count, py::int_(0));
        if (!py_gt(count, py::int_(0)))
            count = random_weighted_int(getattr_or(window, "evaluation_count", py::int_(0)), py::int_(0));
        out.evaluation_count = count;
        return true;
    }
    done_ = true;
    return false;
}

py::tuple analytics_entry_tuple(const AnalyticsEntry& e) {
    return py::make_tuple(1, e.function_names, e.feature_names, e.yield_rate, e.evaluation_count);
}

// ---- names -------------------------------------------------------------------------------------------

py::list random_weighted_feature_specs(py::handle features) {
    py::list specs;
    if (!is_list(features)) {
        log_info("random_weighted excluded feature vocabulary: features must be a list");
        return specs;
    }
    for (py::handle feature : py::reinterpret_borrow<py::list>(features)) {
        if (!is_dict(feature)) {
            log_info("random_weighted excluded feature entry: expected dict metadata");
            continue;
        }
        py::object name = map_get(feature, "name");
        if (!is_nonempty_str(name)) {
            log_info("random_weighted excluded feature with missing name");
            continue;
        }
        py::dict entry;
        entry["name"] = name;
        entry["feature_family"] = map_get(feature, "feature_family", py::str(""));
        entry["feature_subfamily"] = map_get(feature, "feature_subfamily", py::str(""));
        specs.append(entry);
    }
    return specs;
}

py::list random_weighted_feature_names(py::handle features) {
    py::list names;
    for (py::handle entry : random_weighted_feature_specs(features)) names.append(entry["name"]);
    return names;
}

py::list random_weighted_valid_names(py::handle names) {
    py::list out;
    if (!is_name_collection(names)) return out;
    long long walked = 0;
    for (py::handle item : names) {
        if (walked++ >= RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW) break;
        if (is_nonempty_str(item)) out.append(item);
    }
    return out;
}

py::object random_weighted_allowed_name_set(py::handle names) {
    if (names.is_none()) return py::none();
    py::set allowed;
    for (py::handle item : names)
        if (is_nonempty_str(item)) allowed.add(item);
    return allowed;
}

bool random_weighted_skip_analytics_name(py::handle name, py::handle allowed_names, py::handle seen_names) {
    if (!is_nonempty_str(name)) return true;
    if (!allowed_names.is_none() && !py::reinterpret_borrow<py::object>(allowed_names).contains(name)) return true;
    py::object seen = py::reinterpret_borrow<py::object>(seen_names);
    if (seen.contains(name)) return false;
    if (static_cast<long long>(py::len(seen)) >= RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES) return true;
    seen.attr("add")(name);
    return false;
}

// ---- stats -------------------------------------------------------------------------------------------

void random_weighted_add_stat(py::handle stats, py::handle name, py::handle yield_rate, py::handle evaluation_count) {
    if (!is_nonempty_str(name)) return;
    long long count = clamp_py_int(random_weighted_int(evaluation_count, py::int_(0)), 0,
                                   RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT);
    double weight = count > 0 ? static_cast<double>(count) : 1.0;
    double safe_rate = random_weighted_safe_yield_rate(yield_rate);
    py::object stats_obj = py::reinterpret_borrow<py::object>(stats);
    if (!stats_obj.contains(name)) {
        py::dict fresh;
        fresh["yield_total"] = 0.0;
        fresh["weight_total"] = 0.0;
        fresh["evaluation_count"] = 0;
        stats_obj[name] = fresh;
    }
    py::object item = stats_obj[name];
    item["yield_total"] = add(item["yield_total"], py::float_(safe_rate * weight));
    item["weight_total"] = add(item["weight_total"], py::float_(weight));
    item["evaluation_count"] = add(item["evaluation_count"], py::int_(count));
}

void random_weighted_finalize_stats(py::handle stats) {
    py::object values = py::reinterpret_borrow<py::object>(stats).attr("values")();
    for (py::handle item : values) {
        double weight_total = random_weighted_float_value(map_get(item, "weight_total", py::float_(0.0)), 0.0);
        double rate = 0.0;
        if (weight_total > 0.0)
            rate = safe_yield_rate_of(
                random_weighted_float_value(map_get(item, "yield_total", py::float_(0.0)), 0.0) / weight_total);
        if (!std::isfinite(rate)) rate = 0.0;
        double failure = std::min(1.0, std::max(0.0, 1.0 - rate));
        py::object record = py::reinterpret_borrow<py::object>(item);
        record["yield_rate"] = rate;
        record["failure_rate"] = failure;
    }
}

py::tuple random_weighted_analytics_stats(py::handle analytics, py::handle allowed_function_names,
                                          py::handle allowed_feature_names) {
    long long rows_seen = 0;
    py::dict function_stats, feature_stats;
    py::set seen_functions, seen_features;
    py::object allowed_functions = random_weighted_allowed_name_set(allowed_function_names);
    py::object allowed_features = random_weighted_allowed_name_set(allowed_feature_names);
    AnalyticsEntryReader reader(py::reinterpret_borrow<py::object>(analytics));
    AnalyticsEntry entry;
    while (reader.next(entry)) {
        rows_seen += 1;
        py::float_ rate(entry.yield_rate);
        for (py::handle name : entry.function_names)
            if (!random_weighted_skip_analytics_name(name, allowed_functions, seen_functions))
                random_weighted_add_stat(function_stats, name, rate, entry.evaluation_count);
        for (py::handle name : entry.feature_names)
            if (!random_weighted_skip_analytics_name(name, allowed_features, seen_features))
                random_weighted_add_stat(feature_stats, name, rate, entry.evaluation_count);
    }
    random_weighted_finalize_stats(function_stats);
    random_weighted_finalize_stats(feature_stats);
    return py::make_tuple(rows_seen, function_stats, feature_stats);
}

py::tuple random_weighted_yield_maps(py::handle analytics, py::handle function_names, py::handle feature_names) {
    py::tuple stats = random_weighted_analytics_stats(analytics, function_names, feature_names);
    auto rates = [](py::handle stat_map) {
        py::dict out;
        for (auto item : py::reinterpret_borrow<py::dict>(stat_map))
            out[item.first] = random_weighted_safe_yield_rate(map_get(item.second, "yield_rate", py::float_(0.0)));
        return out;
    };
    return py::make_tuple(rates(stats[1]), rates(stats[2]));
}

double random_weighted_safe_yield_rate(py::handle value) { return random_weighted_safe_yield_rate_value(value); }

std::vector<double> random_weighted_cum_weights(py::handle names, py::handle yield_map) {
    std::vector<double> cum;
    double total = 0.0;
    py::float_ zero(0.0);
    for (py::handle name : names) {
        double rate = random_weighted_safe_yield_rate(map_get(yield_map, name, zero));
        total += std::max(1.0 + rate, 0.0);
        cum.push_back(total);
    }
    if (total <= 0.0 || !std::isfinite(total))
        for (size_t i = 0; i < cum.size(); ++i) cum[i] = static_cast<double>(i + 1);  // equal weights
    return cum;
}

py::dict random_weighted_normalized_weights(py::handle names, py::handle stats) {
    py::dict out;
    size_t count = py::len(names);
    if (count == 0) return out;
    double cold = 1.0 / static_cast<double>(count);
    std::vector<std::pair<py::object, double>> raw;
    double total = 0.0;
    for (py::handle name : names) {
        py::object item = map_get(stats, name, py::dict());
        double rate = random_weighted_safe_yield_rate(map_get(item, "yield_rate", py::float_(0.0)));
        double weight = std::max(1.0 + rate, 0.0);
        raw.emplace_back(py::reinterpret_borrow<py::object>(name), weight);
        total += weight;
    }
    bool flat = total <= 0.0 || !std::isfinite(total);
    for (const auto& [name, weight] : raw) {
        py::dict record;
        double warm = flat ? cold : weight / total;
        record["cold_weight"] = cold;
        record["warm_weight"] = warm;
        record["warm_delta"] = flat ? 0.0 : warm - cold;
        out[name] = record;
    }
    return out;
}

}  // namespace quillmarsh::st
