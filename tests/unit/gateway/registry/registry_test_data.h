/* A gateway description used by the registry tests. */
#ifndef REGISTRY_TEST_DATA_H
#define REGISTRY_TEST_DATA_H

namespace registry_test {

constexpr const char *kGateway = R"({
  "gateway": {
    "id": "gw0001",
    "local_key": "0123456789abcdef",
    "sw_ver": "1.2.0",
    "product_key": "gwpk",
    "dps": [ { "id": 1, "name": "led", "prop": "bool" } ]
  },
  "devices": [
    {
      "id": "a1b2c3",
      "bind": true,
      "preprocess": true,
      "sw_ver": "2.0.1",
      "product_key": "plugpk",
      "dps": [
        { "id": 1, "name": "switch", "prop": "bool", "passive": true },
        { "id": 2, "name": "power", "mode": "ro", "prop": "value", "min": -10, "max": 1000, "step": 5, "scale": 1,
          "trigger": "always", "flow": { "window_s": 60, "limit": 3 } },
        { "id": 3, "name": "label", "prop": "str", "max_len": 16 },
        { "id": 4, "name": "mode", "mode": "wr", "prop": "enum", "range": ["low", "mid", "high"] },
        { "id": 5, "name": "fault", "prop": "bitmap", "max_len": 8, "stat": 2 },
        { "id": 6, "name": "blob", "type": "raw" },
        { "id": 7, "name": "fw", "type": "file" }
      ]
    },
    { "id": "d4e5f6", "bind": false }
  ]
})";

} // namespace registry_test

#endif /* REGISTRY_TEST_DATA_H */
