-- One request, repeated: method, body and headers come from the environment. Ends with one JSON line for load.py.
wrk.method = os.getenv("BENCH_METHOD") or "GET"
wrk.body = os.getenv("BENCH_BODY")
for line in (os.getenv("BENCH_HEADERS") or ""):gmatch("[^\n]+") do
    local name, value = line:match("^([^:]+): (.*)$")
    wrk.headers[name] = value
end

local marker = os.getenv("BENCH_COUNTER")
if marker and wrk.body and wrk.body:find(marker, 1, true) then
    local requests, next_request = {}, 0
    function init()
        for number = 0, 99 do
            requests[number] = wrk.format(nil, nil, nil, (wrk.body:gsub(marker, tostring(number))))
        end
    end
    function request()
        next_request = (next_request + 1) % 100
        return requests[next_request]
    end
end

function done(summary, latency, _)
    local errors = summary.errors
    io.write(string.format(
        '\n{"requests": %d, "seconds": %.6f, "failures": %d, "p50": %.3f, "p99": %.3f, "max": %.3f}\n',
        summary.requests, summary.duration / 1e6,
        errors.connect + errors.read + errors.write + errors.status + errors.timeout,
        latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency.max / 1000))
end
