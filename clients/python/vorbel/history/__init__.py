"""The service that keeps the values of many boards: from an MQTT broker to a database of time series."""
